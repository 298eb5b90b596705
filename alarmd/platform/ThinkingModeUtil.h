/// The device's "thinking" indication during a voice request.
#pragma once

#include <string>

struct OipcHandleStruct;

class ThinkingModeUtil {
  public:
    explicit ThinkingModeUtil(OipcHandleStruct* handle);

    /// Tells the control daemon that the voice request is answered; waits 2 s at most. Failure is
    /// only logged. Any thread.
    void endThinkingMode(const std::string& voiceRequestId);

  private:
    OipcHandleStruct* m_handle;
};
