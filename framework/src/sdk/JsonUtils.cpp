#include "SDK/JsonUtils.h"

#include <exception>
#include <memory>

namespace SDK {

namespace {

/// The member `key` of object `v`, or null. Json::Value::operator[] asserts
/// (throws) on a non-object, so every lookup goes through here.
const Json::Value* Member(const Json::Value& v, const char* key)
{
    if (key == nullptr || !v.isObject()) {
        return nullptr;
    }
    return v.find(key, key + std::char_traits<char>::length(key));
}

} // namespace

int JsonUtils::ParseJsonStr(const char* text, unsigned long length, Json::Value& out)
{
    out = Json::Value();
    if (text == nullptr) {
        return -1;
    }
    try {
        Json::CharReaderBuilder builder;
        Json::CharReaderBuilder::strictMode(&builder.settings_);
        // Any JSON value may stand at the top, not only objects and arrays.
        builder["strictRoot"] = false;
        const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        Json::Value parsed;
        std::string errors;
        if (!reader->parse(text, text + length, &parsed, &errors)) {
            return -1;
        }
        out.swap(parsed);
        return 0;
    } catch (const std::exception&) {
        // Nesting beyond the reader's stack limit, or memory exhaustion.
        return -1;
    }
}

bool JsonUtils::GetSubobjectValue(const Json::Value& v, const char* key, Json::Value& out)
{
    const Json::Value* member = Member(v, key);
    if (member == nullptr || !member->isObject()) {
        return false;
    }
    out = *member;
    return true;
}

bool JsonUtils::GetArrayValue(const Json::Value& v, const char* key, Json::Value& out)
{
    const Json::Value* member = Member(v, key);
    if (member == nullptr || !member->isArray()) {
        return false;
    }
    out = *member;
    return true;
}

int JsonUtils::GetIntValue(const Json::Value& v, const char* key, int defaultValue)
{
    const Json::Value* member = Member(v, key);
    // isInt() admits integers and integral reals in int range, not booleans.
    if (member == nullptr || !member->isNumeric() || !member->isInt()) {
        return defaultValue;
    }
    return member->asInt();
}

std::string JsonUtils::GetStringValue(const Json::Value& v, const char* key, const char* defaultValue)
{
    const Json::Value* member = Member(v, key);
    if (member == nullptr || !member->isString()) {
        return defaultValue != nullptr ? defaultValue : "";
    }
    return member->asString();
}

std::string JsonUtils::JsonToString(const Json::Value& v)
{
    try {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        builder["emitUTF8"] = true;
        return Json::writeString(builder, v);
    } catch (const std::exception&) {
        return std::string();
    }
}

} // namespace SDK
