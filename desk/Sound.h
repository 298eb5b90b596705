/// The loudspeaker.
#pragma once

#include <string>
#include <vector>

#include "desk/Child.h"

namespace desk {

/// Plays sound files with a player program of this machine, where it has a sound card and one of
/// the players we know. Used by one thread at a time, which must live as long as the desk.
class Sound {
  public:
    Sound();

    /// False where nothing can be heard.
    bool available() const { return !m_player.empty(); }

    /// Plays the files in order, again and again.
    void play(const std::vector<std::string>& files);
    void stop() { m_child.kill(); }

  private:
    std::string m_player;
    Child m_child;
};

}  // namespace desk
