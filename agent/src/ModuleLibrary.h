#pragma once

#include <memory>
#include <string>

namespace Framework {
class Module;
}

namespace Agent {

/// One loaded module library: the dlopen handle and the module that its
/// CreateModule made. Open makes the module, Init starts it; the host looks
/// at the module's name in between.
///
/// Module code is foreign to the agent: every call into it (CreateModule,
/// name, Init, UnInit, the destructor) is guarded, so nothing it throws
/// reaches the agent. Destroying the object unloads the module: UnInit (when
/// Init was called), delete, dlclose, in that order.
class ModuleLibrary {
public:
    /// Name of the factory every module library exports (C linkage).
    static constexpr const char* kFactorySymbol = "CreateModule";

    /// Opens `path` (RTLD_NOW | RTLD_LOCAL) and creates its module, not yet
    /// initialised. Null, with `error` saying why, when the file is not a
    /// shared object, lacks CreateModule, or CreateModule gives nothing.
    static std::unique_ptr<ModuleLibrary> Open(const std::string& path, std::string& error);

    /// Calls the module's Init; false, with `error` saying why, when it fails
    /// or throws. UnInit is owed from here on, whatever the outcome.
    bool Init(std::string& error);

    ~ModuleLibrary();

    ModuleLibrary(const ModuleLibrary&) = delete;
    ModuleLibrary& operator=(const ModuleLibrary&) = delete;

    /// The module, valid until this object is destroyed.
    Framework::Module& GetModule() const { return *module; }
    /// The module's own name (Framework::Module::name()).
    const std::string& GetName() const { return name; }
    const std::string& GetPath() const { return path; }

private:
    ModuleLibrary(std::string libraryPath, void* libraryHandle);
    /// UnInit when Init was called, then delete and dlclose.
    void Unload();

    std::string path;
    std::string name;
    void* handle = nullptr;
    Framework::Module* module = nullptr;
    bool initialised = false;  ///< Init was called, so UnInit is owed (whatever Init returned)
};

} // namespace Agent
