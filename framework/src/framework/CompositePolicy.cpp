#include "Framework/CompositePolicy.h"

namespace Framework {

CompositePolicy::~CompositePolicy()
{
    for (auto& entry : children) {
        delete entry.second;
    }
    children.clear();
}

void CompositePolicy::Add(Policy* child)
{
    if (child == nullptr) {
        return;
    }
    Policy*& slot = children[child->name];
    if (slot != child) {
        delete slot;
        slot = child;
    }
}

} // namespace Framework
