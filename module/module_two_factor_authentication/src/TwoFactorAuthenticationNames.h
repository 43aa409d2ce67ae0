#pragma once

#include <string>

namespace Engine {

// Names of the module, its feature and its task. Each source unit of the
// module has its own copy of these process-wide strings.
static const std::string two_factor_authentication_module = "two_factor_authentication_module";
static const std::string two_factor_authentication_feature = "two_factor_authentication_feature";
static const std::string two_factor_authentication_task = "two_factor_authentication_task";

// Key under which the module registers its policy callback.
static const std::string two_factor_authentication_policy_callback_id = "10001";

} // namespace Engine
