#include "checksum.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <tuple>

namespace {

using xfer_get::ChecksumAlgorithm;
using xfer_get::checksumFromText;
using xfer_get::ChecksumList;
using xfer_get::checksumListFromText;
using xfer_get::nameOf;

const std::string kMd5(32, 'a');
const std::string kSha1(40, '0');
const std::string kSha256 = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";
const std::string kSha512(128, 'f');
const std::string kOther(64, '7');

// "sha256 of NAME", one a line, in ascending order of the names; or the number of the bad line.
std::string read(std::string_view text) {
  std::size_t badLine = 0;
  const auto list = checksumListFromText(text, &badLine);
  if (!list) return "line " + std::to_string(badLine) + " is bad";
  std::string told;
  for (const auto& [name, checksum] : *list) {
    const bool isKnown =
        checksum.hex == kMd5 || checksum.hex == kSha1 || checksum.hex == kSha256 || checksum.hex == kSha512;
    told += std::string(nameOf(checksum.algorithm)) + (isKnown ? " of " : " of other content: ") + name + ';';
  }
  return told;
}

std::string joined(std::initializer_list<std::string_view> parts) {
  std::string text;
  for (const std::string_view part : parts) text += part;
  return text;
}

TEST(Checksum, isReadFromItsNameAndItsDigits) {
  for (const auto& [name, hex, algorithm] :
       {std::tuple{"md5", kMd5, ChecksumAlgorithm::Md5}, std::tuple{"sha1", kSha1, ChecksumAlgorithm::Sha1},
        std::tuple{"sha256", kSha256, ChecksumAlgorithm::Sha256},
        std::tuple{"sha512", kSha512, ChecksumAlgorithm::Sha512}}) {
    const auto checksum = checksumFromText(std::string(name) + '=' + hex);
    ASSERT_TRUE(checksum) << name;
    EXPECT_EQ(checksum->algorithm, algorithm);
    EXPECT_EQ(checksum->hex, hex);
    EXPECT_EQ(nameOf(algorithm), name);
  }
}

TEST(Checksum, isReadInAnyCase) {
  const auto checksum = checksumFromText("Sha1=ABCDEFabcdef" + std::string(28, '9'));
  ASSERT_TRUE(checksum);
  EXPECT_EQ(checksum->algorithm, ChecksumAlgorithm::Sha1);
  EXPECT_EQ(checksum->hex, "abcdefabcdef" + std::string(28, '9'));
}

TEST(Checksum, isRefusedWhenItsDigitsDoNotFitItsAlgorithm) {
  for (const std::string& text :
       {"sha256=" + kMd5, "md5=" + kSha256, "sha256=" + kSha256 + "0", "sha256=" + kSha256.substr(1),
        std::string("md5="), "sha1=" + std::string(39, '0') + "g", "sha1=" + std::string(39, '0') + " ",
        "sha1= " + std::string(39, '0')}) {
    EXPECT_FALSE(checksumFromText(text)) << text;
  }
}

TEST(Checksum, isRefusedWithoutAKnownAlgorithm) {
  for (const std::string& text :
       {std::string(), std::string("="), kSha256, "=" + kSha256, "sha3=" + kSha256, "sha-256=" + kSha256,
        " sha256=" + kSha256, "sha256 =" + kSha256, "sha224=" + std::string(56, '0'), "sha384=" + std::string(96, '0'),
        "sha256:" + kSha256}) {
    EXPECT_FALSE(checksumFromText(text)) << text;
  }
}

TEST(ChecksumList, tellsTheAlgorithmByTheNumberOfDigits) {
  EXPECT_EQ(read(kMd5 + "  a\n" + kSha1 + "  b\n" + kSha256 + "  c\n" + kSha512 + "  d\n"),
            "md5 of a;sha1 of b;sha256 of c;sha512 of d;");
}

TEST(ChecksumList, bearsABinaryMarker) {
  EXPECT_EQ(read(kSha256 + " *a\n" + kSha256 + "  *b\n" + kSha256 + " **c\n"),
            "sha256 of *b;sha256 of *c;sha256 of a;");
}

TEST(ChecksumList, bearsTaggedLines) {
  EXPECT_EQ(
      read("MD5 (a) = " + kMd5 + "\nSHA1 (b) = " + kSha1 + "\nSHA256 (c) = " + kSha256 + "\nsha512 (d) = " + kSha512),
      "md5 of a;sha1 of b;sha256 of c;sha512 of d;");
  EXPECT_EQ(read("SHA256 (a) = b) = " + kSha256 + "\nSHA256 ((c (d)) = " + kSha256 + "\nSHA256 ( ) = " + kSha256),
            "sha256 of  ;sha256 of (c (d);sha256 of a) = b;");
}

TEST(ChecksumList, bearsUpperCaseDigits) {
  EXPECT_EQ(read("0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF  a"), "sha256 of a;");
}

TEST(ChecksumList, keepsNamesAsTheyAre) {
  for (const std::string name :
       {"two words", " leads", "trails ", "trails\t", "\ttab", "folder/name", "./name", "../name", "/root",
        "C:\\folder\\new", "-", "#hash", "a  b", "carriage\rreturn", "\xC3\xA9", "\xFF"}) {
    EXPECT_EQ(read(joined({kSha256, "  ", name, "\n"})), "sha256 of " + name + ";");
    EXPECT_EQ(read(joined({kSha256, " *", name, "\n"})), "sha256 of " + name + ";");
    EXPECT_EQ(read(joined({"SHA256 (", name, ") = ", kSha256, "\n"})), "sha256 of " + name + ";");
  }
}

TEST(ChecksumList, undoesEscapesAfterALeadingBackslashOnly) {
  EXPECT_EQ(read("\\" + kSha256 + "  a\\nb\\rc\\\\nd\n"), "sha256 of a\nb\rc\\nd;");
  EXPECT_EQ(read("\\" + kSha256 + " *a\\\\\n"), "sha256 of a\\;");
  EXPECT_EQ(read("\\SHA256 (a\\nb) = " + kSha256 + "\n"), "sha256 of a\nb;");
  EXPECT_EQ(read(kSha256 + "  a\\nb\\\\\n"), "sha256 of a\\nb\\\\;");
}

TEST(ChecksumList, refusesEscapesThatNobodyWrites) {
  for (const char* name : {"a\\tb", "a\\", "\\x41", "a\\ ", "\\N"}) {
    EXPECT_EQ(read("\\" + kSha256 + "  " + name), "line 1 is bad") << name;
    EXPECT_EQ(read("\\SHA256 (" + std::string(name) + ") = " + kSha256), "line 1 is bad") << name;
  }
}

TEST(ChecksumList, bearsLinesThatEndAsOnWindows) {
  EXPECT_EQ(read(kSha256 + "  a\r\n\r\nSHA256 (b) = " + kSha256 + "\r\n# said so\r\n" + kSha256 + "  c\r"),
            "sha256 of a;sha256 of b;sha256 of c;");
}

TEST(ChecksumList, bearsAByteOrderMarkAtItsBeginning) {
  EXPECT_EQ(read("\xEF\xBB\xBF" + kSha256 + "  a\n"), "sha256 of a;");
  EXPECT_EQ(read("\xEF\xBB\xBF# said so\n"), "");
  EXPECT_EQ(read(kSha256 + "  a\n\xEF\xBB\xBF" + kSha256 + "  b\n"), "line 2 is bad");
}

TEST(ChecksumList, leavesEmptyLinesAndCommentsOut) {
  EXPECT_EQ(read(""), "");
  EXPECT_EQ(read("\n\n#\n# " + kSha256 + "  a\n\n"), "");
  EXPECT_EQ(read("# said so\n\n" + kSha256 + "  a\n\n\n" + kSha256 + "  b"), "sha256 of a;sha256 of b;");
}

TEST(ChecksumList, refusesNumbersOfDigitsThatNoKnownAlgorithmHas) {
  for (const std::size_t digits : {0U, 1U, 31U, 33U, 56U, 63U, 65U, 96U, 127U, 129U}) {
    EXPECT_EQ(read(std::string(digits, '0') + "  a"), "line 1 is bad") << digits;
    EXPECT_EQ(read("SHA256 (a) = " + std::string(digits, '0')), "line 1 is bad") << digits;
  }
  EXPECT_EQ(read("SHA256 (a) = " + kSha512), "line 1 is bad");
  EXPECT_EQ(read("SHA384 (a) = " + std::string(96, '0')), "line 1 is bad");
  EXPECT_EQ(read("BLAKE2b (a) = " + kSha512), "line 1 is bad") << "as many digits as another one has";
}

TEST(ChecksumList, refusesWhatIsNoLineOfAList) {
  using namespace std::string_literals;
  for (const std::string& line : {kSha256,
                                  kSha256 + " ",
                                  kSha256 + "  ",
                                  kSha256 + " *",
                                  kSha256 + " a",
                                  kSha256 + " ab",
                                  kSha256 + "\ta",
                                  kSha256 + "a",
                                  " " + kSha256 + "  a",
                                  "a  " + kSha256,
                                  "g" + kSha256.substr(1) + "  a",
                                  "<html>"s,
                                  " "s,
                                  "\\"s,
                                  "\\\\"s,
                                  "\\\\" + kSha256 + "  a",
                                  kSha256 + "  a\0b"s,
                                  "SHA256 () = " + kSha256,
                                  "SHA256(a) = " + kSha256,
                                  "SHA256 (a)= " + kSha256,
                                  "SHA256 (a) =" + kSha256,
                                  "SHA256 (a = " + kSha256,
                                  "SHA256 ) = " + kSha256,
                                  "SHA256 () ("s,
                                  "SHA256 (abc" + kSha256,
                                  "SHA256 (a) = " + kSha256 + " ",
                                  "SHA256 (a) = g" + kSha256.substr(1),
                                  "(a) = " + kSha256,
                                  "SHA256  (a) = " + kSha256}) {
    EXPECT_EQ(read(line), "line 1 is bad") << line;
    EXPECT_EQ(read(joined({kSha256, "  first\n", line, "\n", kSha256, "  last\n"})), "line 2 is bad") << line;
  }
}

TEST(ChecksumList, tellsTheFirstBadLineCountingAllLines) {
  EXPECT_EQ(read("# one\n\r\n" + kSha256 + "  a\nbad\nbad\n"), "line 4 is bad");
}

TEST(ChecksumList, bearsTheSameSaidTwice) {
  EXPECT_EQ(read(kSha256 + "  a\n" + kSha256 + " *a\nSHA256 (a) = " + kSha256 + "\n"), "sha256 of a;");
}

TEST(ChecksumList, refusesALineThatContradictsAnEarlierOne) {
  EXPECT_EQ(read(kSha256 + "  a\n" + kSha256 + "  b\n" + kOther + "  a\n"), "line 3 is bad");
  EXPECT_EQ(read(kMd5 + "  a\n" + kSha256 + "  a\n" + std::string(32, 'b') + "  a\n"), "line 3 is bad")
      << "a stronger one in between hides nothing";
  EXPECT_EQ(read(kSha256 + "  a\n" + kOther + "  ./a\n"), "sha256 of other content: ./a;sha256 of a;")
      << "names are compared as they are";
}

TEST(ChecksumList, keepsTheStrongestOfSeveralAlgorithms) {
  EXPECT_EQ(read(kMd5 + "  a\n" + kSha256 + "  a\n" + kSha1 + "  a\n"), "sha256 of a;");
  EXPECT_EQ(read(kSha512 + "  a\n" + kSha256 + "  a\n"), "sha512 of a;");
  EXPECT_EQ(read(kSha1 + "  a\n" + kMd5 + "  a\n"), "sha1 of a;");
}

}  // namespace
