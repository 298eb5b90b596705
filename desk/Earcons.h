/// The part of the device's image that alarmd needs: sounds, identity and its own directory.
#pragma once

namespace desk {

/// Puts in place, below /var/local, what is missing of it. The sounds are short tones made here,
/// under the names that the device uses (long ones end in .mp3 whatever they hold).
/// Throws std::exception when something cannot be written.
void installImage();

}  // namespace desk
