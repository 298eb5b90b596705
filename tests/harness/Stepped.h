/// A device whose wall clock the test steps.
#pragma once

#include "tests/harness/Clock.h"
#include "tests/harness/System.h"

namespace harness {

class Stepped : public System {
  protected:
    /// As start(), but the daemon goes by the clock of the test.
    void startStepped() {
        const char* given = std::getenv("ASAN_OPTIONS");
        const std::string options =
            std::string(given != nullptr ? given : "") + ":verify_asan_link_order=0";
        setenv("ASAN_OPTIONS", options.c_str(), 1);
        setenv("LD_PRELOAD", CLOCK_LIBRARY, 1);
        start();
        unsetenv("LD_PRELOAD");
    }

    std::chrono::seconds offset() const {
        return std::chrono::duration_cast<std::chrono::seconds>(
            std::chrono::nanoseconds(clock.offset));
    }
    std::time_t now() const { return std::time(nullptr) + offset().count(); }
    void step(std::chrono::nanoseconds by) { clock.offset += by.count(); }

    ClockFile& clock = ClockFile::map();
};

}  // namespace harness
