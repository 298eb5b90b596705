/// The single-instance guard: a pid file held by a lock. Main thread.
#pragma once

/// Takes the guard and writes the process id into the file; a file left by a process that is gone
/// is taken over. Returns a handle to give back, negative when another process holds the guard or
/// the file cannot be made.
[[nodiscard]] int orun42_daemon_checksingleton(const char* pidFile);

/// Removes the file, then gives up the guard.
void orun42_daemon_cleansingleton(const char* pidFile, int handle);
