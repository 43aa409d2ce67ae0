#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ModuleLibrary.h"

namespace Agent {

/// The modules the agent runs, in load order.
///
/// A library that cannot be loaded is logged and skipped: the others keep
/// working. Only libraries that FileTrust accepts, in a directory it
/// accepts, are loaded: the agent runs their code as root.
class ModuleHost {
public:
    ModuleHost() = default;
    /// Unloads whatever is still loaded.
    ~ModuleHost();

    ModuleHost(const ModuleHost&) = delete;
    ModuleHost& operator=(const ModuleHost&) = delete;

    /// Loads every *.so file of `directory`, in name order; the number loaded.
    std::size_t LoadDirectory(const std::string& directory);

    /// Loads one library; false (logged) when it is skipped.
    bool LoadLibrary(const std::string& path);

    /// The loaded module named `moduleName`, or null.
    Framework::Module* Find(const std::string& moduleName) const;

    /// Names of the loaded modules, in load order.
    std::vector<std::string> Names() const;

    /// Unloads every module in reverse load order (UnInit, delete, dlclose).
    void UnloadAll();

private:
    std::vector<std::unique_ptr<ModuleLibrary>> libraries;
};

} // namespace Agent
