#include "target.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using xfer_get::Checksum;
using xfer_get::ChecksumAlgorithm;
using xfer_get::ChecksumList;
using xfer_get::Options;
using xfer_get::placeTargets;
using xfer_get::Target;
using xfer_get::Targets;
using xfer_get::targetsFromList;

#ifdef _WIN32
constexpr const char* kAbsolute = "C:/x";
#else
constexpr const char* kAbsolute = "/x";
#endif

std::vector<std::string> urls(const Targets& targets) {
  std::vector<std::string> urls;
  for (const Target& target : targets.all) urls.push_back(target.url);
  return urls;
}

std::vector<std::string> paths(const Targets& targets) {
  std::vector<std::string> paths;
  for (const Target& target : targets.all) paths.push_back(target.path);
  return paths;
}

Options optionsFor(const std::vector<std::string>& urls) {
  Options options;
  options.urls = urls;
  return options;
}

TEST(TargetsFromList, areItsLinesWithoutBlanksAndRemarks) {
  const Targets targets =
      targetsFromList("\xEF\xBB\xBFhttp://a/1\r\n\n  https://b/2\t\n# http://c/3\nhttp://d/4", "list");
  EXPECT_EQ(targets.error, "");
  EXPECT_EQ(urls(targets), (std::vector<std::string>{"http://a/1", "https://b/2", "http://d/4"}));
}

TEST(TargetsFromList, nameTheLineThatIsNoUrl) {
  EXPECT_EQ(targetsFromList("\nhttp://a/1\nftp://a/2\n", "some list").error,
            "some list:3: not an http or https URL: ftp://a/2");
}

TEST(TargetsFromList, ofAnEmptyListAreAnError) {
  for (const char* const text : {"", "\n", "# nothing\n"}) {
    EXPECT_EQ(targetsFromList(text, "list").error, "list: no URL in it") << text;
  }
}

TEST(PlaceTargets, namesEachAfterItsUrlThoseOfTheListLast) {
  Targets listed;
  listed.all.push_back({"http://c/3.bin", {}, {}, {}});
  const Targets targets = placeTargets(optionsFor({"http://a/1.bin", "http://b/2%20x.bin"}), listed, false, nullptr);
  EXPECT_EQ(targets.error, "");
  EXPECT_EQ(urls(targets), (std::vector<std::string>{"http://a/1.bin", "http://b/2%20x.bin", "http://c/3.bin"}));
  EXPECT_EQ(paths(targets), (std::vector<std::string>{"1.bin", "2 x.bin", "3.bin"}));
}

TEST(PlaceTargets, putsTheNameIntoTheFolderUnlessItSaysWhereItIs) {
  const struct {
    std::string folder;
    std::string file;
    std::string path;
  } rows[] = {{"", "", "1.bin"},  {"d", "", "d/1.bin"},  {"d/", "", "d/1.bin"},      {"d/e", "x", "d/e/x"},
              {"", "f/x", "f/x"}, {"d", "f/x", "d/f/x"}, {"d", kAbsolute, kAbsolute}};
  for (const auto& [folder, file, path] : rows) {
    Options options = optionsFor({"http://a/1.bin"});
    options.folder = folder;
    options.file = file;
    EXPECT_EQ(paths(placeTargets(options, {}, false, nullptr)), std::vector<std::string>{path});
  }
}

TEST(PlaceTargets, refusesUrlsWithoutAUsableName) {
  for (const char* const url : {"http://a/..%2Fx", "http://a/b/.."}) {
    EXPECT_EQ(placeTargets(optionsFor({"http://a/1", url}), {}, false, nullptr).error,
              std::string(url) + ": the URL gives no usable file name: name the file with -o");
  }
}

TEST(PlaceTargets, refusesNamesOfDevicesWhereThereAreSomeUnlessTheUserNamesThem) {
  Options options = optionsFor({"http://a/nul.txt"});
  EXPECT_EQ(placeTargets(options, {}, false, nullptr).error, "");
  EXPECT_NE(placeTargets(options, {}, true, nullptr).error, "");
  options.file = "nul.txt";
  EXPECT_EQ(placeTargets(options, {}, true, nullptr).error, "");
}

TEST(PlaceTargets, givesTheOneUrlItsChecksum) {
  Options options = optionsFor({"http://a/1"});
  options.checksum = Checksum{ChecksumAlgorithm::Md5, "ab"};
  const Targets targets = placeTargets(options, {}, false, nullptr);
  ASSERT_TRUE(targets.all.at(0).checksum.has_value());
  EXPECT_EQ(targets.all.at(0).checksum->hex, "ab");
}

std::string checksumOf(const Options& options, const ChecksumList& list) {
  const Targets targets = placeTargets(options, {}, false, &list);
  if (!targets.error.empty()) return targets.error;
  return targets.all.at(0).checksum ? targets.all.at(0).checksum->hex : "none";
}

TEST(PlaceTargets, findsChecksumsByTheStoredNameAndThenByTheUrls) {
  const ChecksumList list{{"1.bin", {ChecksumAlgorithm::Sha1, "of the URL"}},
                          {"mine", {ChecksumAlgorithm::Sha1, "of the file"}},
                          {"./folder/2.bin", {ChecksumAlgorithm::Sha1, "in a folder"}},
                          {"x/3.bin", {ChecksumAlgorithm::Sha1, "one"}},
                          {"y/3.bin", {ChecksumAlgorithm::Sha1, "another"}},
                          {"y/4.bin", {ChecksumAlgorithm::Sha1, "in y"}},
                          {"4.bin", {ChecksumAlgorithm::Sha1, "here"}}};
  Options options = optionsFor({"http://a/1.bin"});
  EXPECT_EQ(checksumOf(options, list), "of the URL");
  options.file = "d/mine";
  EXPECT_EQ(checksumOf(options, list), "of the file");
  options.file = "other";
  EXPECT_EQ(checksumOf(options, list), "of the URL");
  EXPECT_EQ(checksumOf(optionsFor({"http://a/2.bin"}), list), "in a folder");
  EXPECT_EQ(checksumOf(optionsFor({"http://a/4.bin"}), list), "here");
  options = optionsFor({"http://a/3.bin"});
  options.checksumFile = "SUMS";
  EXPECT_EQ(checksumOf(options, list), "SUMS: no line, or more than one, for 3.bin");
  options.urls = {"http://a/5.bin"};
  EXPECT_EQ(checksumOf(options, list), "SUMS: no line, or more than one, for 5.bin");
}

}  // namespace
