// Listing paths of the Hadoop enumerator: the client's prefix and "maprfs://" come off, and
// every path is anchored at "/". (Whole scans over WebHDFS, with folders failing in the middle,
// run through fsscan in tests/Tools/FsscanHadoopTest.cpp.)
#include <gtest/gtest.h>

#include <string>

#include "Scan/Unix/HadoopPathEnumerator.h"

namespace {

struct SFixPathCase {
  const char* szPrefix;
  const char* szPath;
  const char* szFixed;
};

class HadoopFixPath : public ::testing::TestWithParam<SFixPathCase> {};

TEST_P(HadoopFixPath, RemovesThePrefixesAndAnchorsThePath) {
  EXPECT_EQ(CHadoopPathEnumerator::FixPath(GetParam().szPrefix, GetParam().szPath), GetParam().szFixed);
}

INSTANTIATE_TEST_SUITE_P(Paths, HadoopFixPath,
                         ::testing::Values(SFixPathCase{"webhdfs://nn:9870", "webhdfs://nn:9870/user/a", "/user/a"},
                                           SFixPathCase{"webhdfs://nn:9870", "/user/a", "/user/a"},
                                           SFixPathCase{"hdfs://nn:8020", "maprfs:///mapr/c/x", "/mapr/c/x"},
                                           SFixPathCase{"", "maprfs://user/b", "/user/b"},
                                           SFixPathCase{"webhdfs://nn:9870", "webhdfs://nn:9870", "/"},
                                           SFixPathCase{"webhdfs://nn:9870", "webhdfs://other:1/x", "/webhdfs://other:1/x"}));

}  // namespace
