#include "file_name.h"

#include <gtest/gtest.h>

namespace {

using xfer_get::fileNameFromUrl;
using xfer_get::namesDeviceOfWindows;

TEST(FileName, isTheLastSegmentOfThePath) {
  EXPECT_EQ(fileNameFromUrl("http://host/a/b/file.bin"), "file.bin");
  EXPECT_EQ(fileNameFromUrl("http://host/file"), "file");
  EXPECT_EQ(fileNameFromUrl("host/file"), "file") << "a URL may come without its scheme";
}

TEST(FileName, leavesQueryAndFragmentOut) {
  EXPECT_EQ(fileNameFromUrl("http://host/file.bin?name=other/thing"), "file.bin");
  EXPECT_EQ(fileNameFromUrl("http://host/file.bin#top/x"), "file.bin");
  EXPECT_EQ(fileNameFromUrl("host/file.bin?from=http://other/thing"), "file.bin");
}

TEST(FileName, isIndexHtmlForAFolderAndForABareHost) {
  EXPECT_EQ(fileNameFromUrl("http://host/folder/"), "index.html");
  EXPECT_EQ(fileNameFromUrl("http://host/"), "index.html");
  EXPECT_EQ(fileNameFromUrl("http://host"), "index.html");
  EXPECT_EQ(fileNameFromUrl("http://host?a=/b"), "index.html");
}

TEST(FileName, hasItsPercentEscapesDecoded) {
  EXPECT_EQ(fileNameFromUrl("http://host/a%20b%C3%A9.txt"), "a b\xC3\xA9.txt");
  EXPECT_EQ(fileNameFromUrl("http://host/100%25"), "100%");
}

TEST(FileName, keepsWhatIsNoEscape) {
  EXPECT_EQ(fileNameFromUrl("http://host/50%"), "50%");
  EXPECT_EQ(fileNameFromUrl("http://host/50%2"), "50%2");
  EXPECT_EQ(fileNameFromUrl("http://host/50%zz"), "50%zz");
  EXPECT_EQ(fileNameFromUrl("http://host/50%-1"), "50%-1");
  EXPECT_EQ(fileNameFromUrl("http://host/50%+1"), "50%+1");
  EXPECT_EQ(fileNameFromUrl("http://host/a+b"), "a+b");
  EXPECT_EQ(fileNameFromUrl("http://host/%252e"), "%2e") << "decoded once";
}

TEST(FileName, isRefusedWhenItCouldLeaveTheFolder) {
  for (const char* url : {"http://host/..", "http://host/.", "http://host/%2e%2e", "http://host/a%2Fb",
                          "http://host/%2e%2e%2fetc", "http://host/a%5Cb", "http://host/C%3Afile", "http://host/a\\b",
                          "http://host/a%00b", "http://host/a%0Ab", "http://host/a%7Fb"}) {
    EXPECT_EQ(fileNameFromUrl(url), "") << url;
  }
}

TEST(DeviceName, isOneInEitherCaseAndWithAnyEnding) {
  for (const char* name : {"nul", "NUL", "Con", "aux.txt", "prn.tar.gz", "com1", "COM9.log", "lpt3", "nul ", "con .x",
                           "conin$", "CONOUT$"}) {
    EXPECT_TRUE(namesDeviceOfWindows(name)) << name;
  }
}

TEST(DeviceName, isNoneThatOnlyBeginsLikeOne) {
  for (const char* name :
       {"", ".", "null", "console", "auxiliary.c", "com", "com0", "com10", "lptx", "x.nul", ".con"}) {
    EXPECT_FALSE(namesDeviceOfWindows(name)) << name;
  }
}

}  // namespace
