#include "ModuleHost.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "AgentLog.h"
#include "FileTrust.h"
#include "Framework/Module.h"
#include "SDK/LoggerUtils.h"

namespace Agent {

namespace {

bool HasSuffix(const std::string& text, const std::string& suffix)
{
    return text.size() > suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::vector<std::string> LibraryNames(const std::string& directory)
{
    std::vector<std::string> names;
    DIR* dir = opendir(directory.c_str());
    if (dir == nullptr) {
        AGENT_LOG_ERROR("Module directory(" + directory + ") cannot be read: " + std::strerror(errno) +
                        "; no module loaded.");
        return names;
    }
    while (const struct dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name[0] != '.' && HasSuffix(name, ".so")) {
            names.push_back(name);
        }
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace

ModuleHost::~ModuleHost()
{
    UnloadAll();
}

std::size_t ModuleHost::LoadDirectory(const std::string& directory)
{
    const std::string why = FileTrust::WhyUntrusted(directory, true);
    if (!why.empty()) {
        AGENT_LOG_ERROR("Module directory(" + directory + ") not used: " + why + "; no module loaded.");
        return 0;
    }
    const std::string prefix = directory.back() == '/' ? directory : directory + "/";
    std::size_t loaded = 0;
    for (const std::string& name : LibraryNames(directory)) {
        if (LoadLibrary(prefix + name)) {
            ++loaded;
        }
    }
    AGENT_LOG_INFO("Loaded " + std::to_string(loaded) + " module(s) from " + directory + ".");
    return loaded;
}

bool ModuleHost::LoadLibrary(const std::string& path)
{
    const std::string why = FileTrust::WhyUntrusted(path, false);
    if (!why.empty()) {
        AGENT_LOG_ERROR("Module library(" + path + ") skipped: " + why + ".");
        return false;
    }
    std::string error;
    std::unique_ptr<ModuleLibrary> library = ModuleLibrary::Open(path, error);
    if (library && Find(library->GetName()) != nullptr) {
        // Policies are routed by module name: a second module of that name could never be reached.
        error = "a module named " + library->GetName() + " is loaded already";
        library.reset();
    }
    if (library && !library->Init(error)) {
        library.reset();  // UnInit, delete, dlclose
    }
    if (!library) {
        AGENT_LOG_ERROR("Module library(" + path + ") skipped: " + error + ".");
        return false;
    }
    AGENT_LOG_INFO("Module(" + library->GetName() + ") loaded from " + path + ".");
    libraries.push_back(std::move(library));
    return true;
}

Framework::Module* ModuleHost::Find(const std::string& moduleName) const
{
    for (const auto& library : libraries) {
        if (library->GetName() == moduleName) {
            return &library->GetModule();
        }
    }
    return nullptr;
}

std::vector<std::string> ModuleHost::Names() const
{
    std::vector<std::string> names;
    for (const auto& library : libraries) {
        names.push_back(library->GetName());
    }
    return names;
}

void ModuleHost::UnloadAll()
{
    while (!libraries.empty()) {
        const std::string name = libraries.back()->GetName();
        AGENT_LOG_INFO("Unloading module(" + name + ").");
        libraries.pop_back();
        // What the module logged while it stopped is on disk before the next one stops.
        SDK::LoggerUtils::GetInstance()->Flush();
        AGENT_LOG_INFO("Module(" + name + ") unloaded.");
    }
}

} // namespace Agent
