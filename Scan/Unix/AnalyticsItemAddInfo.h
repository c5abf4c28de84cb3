// CAnalyticsItemAddInfo: additional facts about a change that analytics consumers report with an
// item: its previous permissions and owner, the user who started the job, an error text, and the
// access-list criteria the job was asked to check.
//
// The strings are carried as the caller gives them; the library gives them no further meaning.
// The JSON renderings (see CAnalyticsJson for string escaping):
//  - GetACLCriteriaAsJSONString: [{"Name":..,"SID":..,"Permission":..,"Allow":true|false},...],
//    "[]" without criteria;
//  - GetOwnerChangeRequestedAsJSONString: {"PreviousOwner":..,"RequestedBy":..} with "Error"
//    added when there is an error text; empty when no previous owner is known (no owner change
//    to report).
//
// Ownership: shared (CAnalyticsItemAddInfoPtr) between the caller and the analytics interfaces
// that report it. Immutable after construction; safe to read from any thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Scan/Unix/ACLCriteria.h"

class CAnalyticsItemAddInfo;
using CAnalyticsItemAddInfoPtr = std::shared_ptr<CAnalyticsItemAddInfo>;

class CAnalyticsItemAddInfo {
 public:
  CAnalyticsItemAddInfo(std::string strPrevPermissions, std::string strPrevOwner,
                        std::string strUserWhoStartedTheJob, std::string strError,
                        std::vector<TMMsg::ACLCriteria> lstACLCriteria);
  virtual ~CAnalyticsItemAddInfo();
  CAnalyticsItemAddInfo(const CAnalyticsItemAddInfo&) = delete;
  CAnalyticsItemAddInfo& operator=(const CAnalyticsItemAddInfo&) = delete;

  virtual const std::string& GetPrevPermissions() const;
  virtual const std::string& GetPrevOwner() const;
  virtual const std::string& GetUserWhoStartedTheJob() const;
  virtual const std::string& GetError() const;
  virtual const std::vector<TMMsg::ACLCriteria>& GetACLCriteria() const;
  virtual std::string GetACLCriteriaAsJSONString() const;
  virtual std::string GetOwnerChangeRequestedAsJSONString() const;

 private:
  std::string m_strPrevPermissions;
  std::string m_strPrevOwner;
  std::string m_strUserWhoStartedTheJob;
  std::string m_strError;
  std::vector<TMMsg::ACLCriteria> m_lstACLCriteria;
};
