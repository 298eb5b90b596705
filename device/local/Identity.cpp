#include "alarmd/platform/Identity.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>

int idme_get_property(const char* key, char* buffer, unsigned int capacity) {
    std::ifstream file(std::string("/var/local/idme/") + key, std::ios::binary);
    if (!file) {
        return ENOENT;
    }
    std::string value;
    for (char c = 0; file.get(c) && c != '\n';) {
        if (value.size() == capacity) {
            return ERANGE;
        }
        value += c;
    }
    if (file.bad()) {
        return EIO;
    }
    std::memcpy(buffer, value.c_str(), value.size() + 1);
    return 0;
}
