#include "Scan/Unix/AnalyticsItemAddInfo.h"

#include "Scan/Unix/AnalyticsJson.h"

CAnalyticsItemAddInfo::CAnalyticsItemAddInfo(std::string strPrevPermissions,
                                             std::string strPrevOwner,
                                             std::string strUserWhoStartedTheJob,
                                             std::string strError,
                                             std::vector<TMMsg::ACLCriteria> lstACLCriteria)
    : m_strPrevPermissions(std::move(strPrevPermissions)),
      m_strPrevOwner(std::move(strPrevOwner)),
      m_strUserWhoStartedTheJob(std::move(strUserWhoStartedTheJob)),
      m_strError(std::move(strError)),
      m_lstACLCriteria(std::move(lstACLCriteria)) {}

CAnalyticsItemAddInfo::~CAnalyticsItemAddInfo() = default;

const std::string& CAnalyticsItemAddInfo::GetPrevPermissions() const {
  return m_strPrevPermissions;
}

const std::string& CAnalyticsItemAddInfo::GetPrevOwner() const { return m_strPrevOwner; }

const std::string& CAnalyticsItemAddInfo::GetUserWhoStartedTheJob() const {
  return m_strUserWhoStartedTheJob;
}

const std::string& CAnalyticsItemAddInfo::GetError() const { return m_strError; }

const std::vector<TMMsg::ACLCriteria>& CAnalyticsItemAddInfo::GetACLCriteria() const {
  return m_lstACLCriteria;
}

std::string CAnalyticsItemAddInfo::GetACLCriteriaAsJSONString() const {
  std::string strOut = "[";
  for (const TMMsg::ACLCriteria& criteria : m_lstACLCriteria) {
    if (strOut.size() > 1) strOut.push_back(',');
    strOut += "{\"Name\":";
    CAnalyticsJson::AppendString(strOut, criteria.m_strName);
    strOut += ",\"SID\":";
    CAnalyticsJson::AppendString(strOut, criteria.m_strSid);
    strOut += ",\"Permission\":";
    CAnalyticsJson::AppendString(strOut, criteria.m_strPermission);
    strOut += criteria.m_bAllow ? ",\"Allow\":true}" : ",\"Allow\":false}";
  }
  strOut.push_back(']');
  return strOut;
}

std::string CAnalyticsItemAddInfo::GetOwnerChangeRequestedAsJSONString() const {
  if (m_strPrevOwner.empty()) return std::string();
  std::string strOut = "{\"PreviousOwner\":";
  CAnalyticsJson::AppendString(strOut, m_strPrevOwner);
  strOut += ",\"RequestedBy\":";
  CAnalyticsJson::AppendString(strOut, m_strUserWhoStartedTheJob);
  if (!m_strError.empty()) {
    strOut += ",\"Error\":";
    CAnalyticsJson::AppendString(strOut, m_strError);
  }
  strOut.push_back('}');
  return strOut;
}
