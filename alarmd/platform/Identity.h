/// The device's identity store.
#pragma once

/// Copies the value of `key` and a terminating zero into `buffer`, which has room for `capacity`
/// characters besides the zero. 0 on success; non-zero, with an untouched buffer, when there is no
/// such key or its value is longer. Reads the store on every call. Any thread.
[[nodiscard]] int idme_get_property(const char* key, char* buffer, unsigned int capacity);
