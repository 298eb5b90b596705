/// JSON documents with an owner.
#pragma once

#include <cjson/cJSON.h>

#include <memory>
#include <string>

namespace desk {

struct JsonDeleter {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

/// The document without white space.
inline std::string print(const Json& json) {
    const std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(json.get()),
                                                            &cJSON_free);
    return text ? text.get() : "";
}

/// The text of a member; empty when there is none.
inline std::string member(const cJSON* object, const char* key) {
    const char* text = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, key));
    return text != nullptr ? text : "";
}

}  // namespace desk
