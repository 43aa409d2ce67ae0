#pragma once

#include <atomic>
#include <sstream>
#include <string>

#include "Framework/FeaturePolicy.h"
#include "Framework/PolicyCallback.h"
#include "Framework/Task.h"
#include "Framework/TaskPolicy.h"

namespace FrameworkTest {

/// A task that counts what the framework does to it.
class RecordingTask : public Framework::Task {
public:
    explicit RecordingTask(const std::string& taskName, int resultOfInit = 0)
        : Framework::Task(taskName, "feature", Framework::TaskCondition::TASK_TYPE_RESIDENT, 16),
          initResult(resultOfInit)
    {
    }

    int Init() override
    {
        ++inits;
        seenPolicy = CurrentPolicy();
        return initResult;
    }
    void UnInit() override { ++uninits; }
    int Run() override
    {
        ++runs;
        running = true;
        const int result = Framework::Task::Run();
        running = false;
        return result;
    }

    std::atomic<int> inits{0};
    std::atomic<int> uninits{0};
    std::atomic<int> runs{0};
    std::atomic<bool> running{false};
    Framework::FeaturePolicy* seenPolicy = nullptr;
    int initResult;
};

/// A feature policy whose document is a comma-separated list of task names;
/// "reject" is refused. Counts its destructions in `destroyed`.
class ListPolicy : public Framework::FeaturePolicy {
public:
    ListPolicy(const std::string& featureName, int* destroyedCounter)
        : FeaturePolicy(featureName), destroyed(destroyedCounter)
    {
    }
    ~ListPolicy() override { ++*destroyed; }

    bool Parse(const std::string& content) override
    {
        std::istringstream items(content);
        for (std::string item; content != "reject" && std::getline(items, item, ',');) {
            if (!item.empty()) {
                Add(new Framework::TaskPolicy(item));
            }
        }
        return content != "reject";
    }

    int* destroyed;
};

/// The policy-callback side of a module, as a module would write it.
class PolicyMaker {
public:
    Framework::Policy* Make(const std::string& feature, const std::string& content, Framework::Policy*& current)
    {
        ++calls;
        if (current != nullptr) {
            current->expired = true;
        }
        auto* policy = new ListPolicy(feature, &destroyed);
        if (!policy->Parse(content)) {
            delete policy;
            return nullptr;
        }
        return policy;
    }

    int calls = 0;
    int destroyed = 0;
};

} // namespace FrameworkTest
