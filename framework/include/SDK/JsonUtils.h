#pragma once

#include <string>

#include <json/json.h>

namespace SDK {

/// JSON helpers on JsonCpp. None of them throws.
class JsonUtils {
public:
    /// Parses `length` bytes of `text` (strict JSON, one value, nothing after
    /// it) into `out`; 0 on success, -1 otherwise (`out` then null).
    static int ParseJsonStr(const char* text, unsigned long length, Json::Value& out);

    /// True, with `out` set, when `v` is an object whose `key` is an object.
    static bool GetSubobjectValue(const Json::Value& v, const char* key, Json::Value& out);
    /// True, with `out` set, when `v` is an object whose `key` is an array.
    static bool GetArrayValue(const Json::Value& v, const char* key, Json::Value& out);

    /// `key` of object `v` as an int when it is a JSON number with an integral
    /// value in int range (600 and 600.0 are read; 600.5, "600", true are
    /// not); `defaultValue` otherwise, also when the key is absent.
    static int GetIntValue(const Json::Value& v, const char* key, int defaultValue);
    /// `key` of object `v` when it is a string; `defaultValue` otherwise.
    static std::string GetStringValue(const Json::Value& v, const char* key, const char* defaultValue);

    /// Compact text of `v` ({"a":1}), no trailing newline.
    static std::string JsonToString(const Json::Value& v);
};

} // namespace SDK
