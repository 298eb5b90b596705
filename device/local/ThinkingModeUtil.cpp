#include "alarmd/platform/ThinkingModeUtil.h"

#include "alarmd/Log.h"
#include "alarmd/platform/Oipc.h"

ThinkingModeUtil::ThinkingModeUtil(OipcHandleStruct* handle) : m_handle(handle) {}

void ThinkingModeUtil::endThinkingMode(const std::string& voiceRequestId) {
    const int status = OipcSetStringProperty(m_handle, "com.quintel.controld", "endThinkingMode",
                                             voiceRequestId.c_str());
    if (status != 0) {
        LOGW("ThinkingModeUtil:endThinkingMode:reason=OipcSetStringPropertyFailed,error=%s:",
             OipcGetErrorString(status));
    }
}
