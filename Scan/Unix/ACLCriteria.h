// TMMsg::ACLCriteria: one access-list criterion of an analytics request, as the caller's
// messaging layer delivers it (who, which permission, allowed or denied). The library only
// carries criteria from the caller to the analytics consumers (CAnalyticsItemAddInfo) and
// renders them as JSON; it never evaluates them. A plain value type.
#pragma once

#include <string>

namespace TMMsg {
struct ACLCriteria {
  std::string m_strName;  // user or group name
  std::string m_strSid;   // user or group id ("1000")
  std::string
      m_strPermission;   // "Read", "Write", "Modify", "Delete", "Execute", "FullControl", ...
  bool m_bAllow = true;  // an allow criterion (true) or a deny criterion (false)
};
}  // namespace TMMsg
