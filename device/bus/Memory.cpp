#include "device/bus/Memory.h"

#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <memory>

namespace device {
namespace {

constexpr long k_much = 2L << 20;

/// What is resident and not in use, in bytes: the allocator's gaps, and what never changes much.
long unusedSize() {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen("/proc/self/statm", "re"),
                                                               &std::fclose);
    long pages = 0;
    if (file == nullptr || std::fscanf(file.get(), "%*d %ld", &pages) != 1) {
        return 0;
    }
    const struct mallinfo2 info = mallinfo2();
    return pages * sysconf(_SC_PAGESIZE) - static_cast<long>(info.uordblks + info.hblkhd);
}

}  // namespace

void giveBackMemory() {
    static std::atomic<long> s_size{unusedSize()};
    if (unusedSize() > s_size + k_much) {
        malloc_trim(0);
        s_size = unusedSize();
    }
}

}  // namespace device
