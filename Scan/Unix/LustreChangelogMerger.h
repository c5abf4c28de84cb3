// CLustreChangelogMerger: applies the changelog records of every MDT of a Lustre file system to
// the engine's scan database as one stream ordered by the records' time.
//
// Why: on a file system with several MDTs (remote and striped folders) a record on one MDT often
// names a folder made on another, or moves an object another MDT created. Applied one MDT after
// the other, the parent would be unknown (and the job a full scan) or records would meet in the
// wrong order. Merged by time, each record finds the state it was written against.
//
// Per MDT (AddMdt, in MDT order): the records from the index the database holds + 1 to the end
// noted for this job, fetched with LustreAPI::GetChangelogs in batches of the batch size into
// "<folder>/<MDT>/Changelog_%lld_to_%lld" and read one line at a time (CLustreChangelogReader):
// only the current batch file of each MDT is open and only its head record is in memory. The
// next record applied is the head with the smallest time; equal times go by MDT order, and one
// MDT's records always keep their index order (each MDT gives only its head).
//
// Transactions: the applied records and EVERY MDT's "LustreChangelogIndex:<MDT>" (the last
// record of that MDT applied; the batch's end once its file is used up) commit together. A
// transaction ends when an MDT's batch file is used up (its next batch is fetched after the
// commit) or after the batch size of records; the applier's gathered modifications and parent
// refreshes are flushed before each commit. A job killed between transactions leaves a database
// whose indexes say exactly which records it holds: run again, none is skipped or applied twice.
// With one MDT this is batch by batch, each batch and its index in one transaction.
//
// Errors: a record the applier or reader refuses rolls the open transaction back and ends Run
// with "Cannot Process Changelogs" (the engine then scans in full); a fetch that fails is
// "Cannot obtain changelogs from MDT %s from %lld to %lld"; an abort between transactions is
// Win32 995.
//
// Ownership: works on the store, API, applier and abort check it is given (all outlive it); owns
// the readers and removes each batch file once committed (unless "/tmp/keep_lustre_changelogs"
// exists). Threads: one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Platform/QiError.h"
#include "Scan/AbortOperationCheck.h"
#include "Scan/ScanDB/ScanDbStore.h"
#include "Scan/Unix/LustreAPI.h"
#include "Scan/Unix/LustreChangelogApplier.h"
#include "Scan/Unix/LustreChangelogReader.h"

class CLustreChangelogMerger {
 public:
  // strFolder: where the batch files go ("Changelogs_Temporary" of the job results).
  CLustreChangelogMerger(CScanDbStore& store, LustreAPI& api, CLustreChangelogApplier& applier, std::string strMount,
                         std::string strFolder, int64_t llBatchSize, const CAbortOperationCheck* pAbort);

  // The MDT's records after llDone up to llEnd are to be applied; the order of the calls is the
  // MDT order that breaks ties of time.
  void AddMdt(const std::string& strMDT, int64_t llDone, int64_t llEnd);
  CQiError Run();
  // The counts of every committed transaction.
  const CLustreChangelogApplier::SCounts& GetTotals() const { return m_totals; }

 private:
  struct SStream {
    std::string strMDT;
    int64_t llDone = 0;  // every record up to here is applied (committed or in the transaction)
    int64_t llEnd = 0;   // the last index to apply
    int64_t llFetched = 0;  // end of the batch fetched last
    CLustreChangelogReader reader;
    CLustreChangelogRecord head;
    bool bHead = false;       // head holds the next record
    bool bBatchDone = false;  // the current batch file is used up
  };

  // Fetches the stream's next batch and reads its first record.
  CQiError Fetch(SStream& stream);
  // Reads the stream's next record of the current batch.
  CQiError Advance(SStream& stream);
  // Flushes the applier, writes every MDT's index and commits; then removes used batch files.
  CQiError Commit();
  // Puts a stream that has a head into the merge heap.
  void Enter(size_t uStream);
  // Ends the open transaction without its changes and passes the error on.
  CQiError Fail(CQiError error);

  CScanDbStore& m_store;
  LustreAPI& m_api;
  CLustreChangelogApplier& m_applier;
  std::string m_strMount, m_strFolder;
  int64_t m_llBatchSize;
  const CAbortOperationCheck* m_pAbort;
  std::vector<std::unique_ptr<SStream>> m_lstStreams;
  // (time of the head, MDT order) of every stream that has a head, smallest first.
  std::vector<std::pair<int64_t, size_t>> m_heap;
  bool m_bInTransaction = false;
  CLustreChangelogApplier::SCounts m_counts;  // of the open transaction
  CLustreChangelogApplier::SCounts m_totals;  // of the committed ones
  std::vector<std::string> m_lstUsedFiles;    // batch files used up in the open transaction
};
