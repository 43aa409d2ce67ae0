#include "ModuleLibrary.h"

#include <dlfcn.h>

#include <exception>
#include <new>
#include <utility>

#include "AgentLog.h"
#include "Framework/Module.h"

namespace Agent {

namespace {

using Factory = Framework::Module* (*)();

/// Runs `call`; false, with `error` naming `what`, when it throws.
template <typename Call>
bool Guarded(const std::string& what, std::string& error, Call call)
{
    try {
        call();
        return true;
    } catch (const std::exception& e) {
        error = what + " threw: " + e.what();
    } catch (...) {
        error = what + " threw an unknown exception";
    }
    return false;
}

std::string DlError()
{
    const char* text = dlerror();
    return text != nullptr ? text : "unknown dynamic loader error";
}

} // namespace

ModuleLibrary::ModuleLibrary(std::string libraryPath, void* libraryHandle)
    : path(std::move(libraryPath)), handle(libraryHandle)
{
}

std::unique_ptr<ModuleLibrary> ModuleLibrary::Open(const std::string& path, std::string& error)
{
    dlerror();
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        error = "not a loadable library: " + DlError();
        return nullptr;
    }
    std::unique_ptr<ModuleLibrary> library(new (std::nothrow) ModuleLibrary(path, handle));
    if (!library) {
        dlclose(handle);
        error = "out of memory";
        return nullptr;
    }
    dlerror();
    auto factory = reinterpret_cast<Factory>(dlsym(handle, kFactorySymbol));
    if (factory == nullptr) {
        error = std::string("no ") + kFactorySymbol + ": " + DlError();
        return nullptr;  // the destructor closes the library
    }
    if (!Guarded(kFactorySymbol, error, [&] { library->module = factory(); })) {
        return nullptr;
    }
    if (library->module == nullptr) {
        error = std::string(kFactorySymbol) + " returned no module";
        return nullptr;
    }
    const char* moduleName = nullptr;
    if (!Guarded("name()", error, [&] { moduleName = library->module->name(); })) {
        return nullptr;
    }
    library->name = moduleName != nullptr ? moduleName : "";
    return library;
}

bool ModuleLibrary::Init(std::string& error)
{
    int result = -1;
    initialised = true;
    if (!Guarded("Init", error, [&] { result = module->Init(); })) {
        return false;
    }
    if (result < 0) {
        error = "Init failed (" + std::to_string(result) + ")";
        return false;
    }
    return true;
}

ModuleLibrary::~ModuleLibrary()
{
    Unload();
}

void ModuleLibrary::Unload()
{
    std::string error;
    if (module != nullptr && initialised) {
        initialised = false;
        if (!Guarded("UnInit of module " + name, error, [&] { module->UnInit(); })) {
            AGENT_LOG_ERROR(error + ".");
        }
    }
    if (module != nullptr) {
        // Modules are deleted through the virtual destructor, as CreateModule's contract says.
        if (!Guarded("Destructor of module " + name, error, [&] { delete module; })) {
            AGENT_LOG_ERROR(error + ".");
        }
        module = nullptr;
    }
    if (handle != nullptr) {
        if (dlclose(handle) != 0) {
            AGENT_LOG_WARNING("dlclose(" + path + ") failed: " + DlError() + ".");
        }
        handle = nullptr;
    }
}

} // namespace Agent
