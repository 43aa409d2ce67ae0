#pragma once

#include <Poco/Event.h>

namespace Framework {

/// How the framework runs a task, and the hand-shake between the framework
/// thread that starts a task and the task's own thread.
class TaskCondition {
public:
    /// Kinds of task.
    enum TaskType {
        TASK_TYPE_NONE = 0,      ///< not set
        TASK_TYPE_ONESHOT = 1,   ///< Run does one piece of work and returns
        TASK_TYPE_PERIODIC = 2,  ///< Run is started again on a schedule
        TASK_TYPE_RESIDENT = 3,  ///< Run loops until cancelled; restarted when its policy changes
    };

    explicit TaskCondition(TaskType taskType) : type(taskType), started(Poco::Event::EVENT_MANUALRESET) {}

    TaskType type;
    /// Set by the task thread once it is inside runTask, so that a
    /// cancellation issued after the start can no longer be overwritten.
    Poco::Event started;
};

} // namespace Framework
