#include "place.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "new_file.h"
#include "support/temp_dir.h"

namespace {

using support::listFolder;
using support::writeFile;
using xfer_get::makeNewFile;
using xfer_get::NewFile;
using xfer_get::Place;

class PlaceOfADownload : public testing::Test {
 protected:
  [[nodiscard]] std::string file(const std::string& name) const { return folder_.file(name); }

  const support::TempDir folder_;
};

TEST_F(PlaceOfADownload, isTheWantedNameAndTakesIt) {
  const Place place(file("out"), false);
  EXPECT_EQ(place.error(), "");
  EXPECT_EQ(place.path(), file("out"));
  EXPECT_EQ(support::fileSize(file("out")), 0U);
}

TEST_F(PlaceOfADownload, isTheFirstFreeNumberWhereTheNameIsTaken) {
  writeFile(file("out"), "mine");
  writeFile(file("out.1"), "");
  EXPECT_EQ(Place(file("out"), false).path(), file("out.2"));
  EXPECT_EQ(Place(file("out"), false).path(), file("out.3")) << "taken by the one before";
  EXPECT_EQ(support::readFile(file("out")), "mine");
}

TEST_F(PlaceOfADownload, isTheTakenNameThatIsToBeReplaced) {
  writeFile(file("out"), "mine");
  const Place place(file("out"), true);
  EXPECT_EQ(place.path(), file("out"));
  place.leaveIfEmpty();
  EXPECT_EQ(support::readFile(file("out")), "mine") << "it is replaced by what comes";
  writeFile(file("empty"), "");
  Place(file("empty"), true).leaveIfEmpty();
  EXPECT_TRUE(support::exists(file("empty"))) << "somebody else has made it";
}

TEST_F(PlaceOfADownload, isNoFolder) {
  for (const bool overwrite : {false, true}) {
    EXPECT_EQ(Place(folder_.path(), overwrite).error(), "this is a folder; -P stores into it");
  }
}

TEST_F(PlaceOfADownload, isGivenBackWhenNothingWasStored) {
  const Place place(file("out"), false);
  place.leaveIfEmpty();
  EXPECT_FALSE(support::exists(file("out")));
  writeFile(file("out"), "");
  Place(file("out"), false).leaveIfEmpty();
  EXPECT_EQ(listFolder(folder_.path()), std::vector<std::string>{"out"}) << "an empty file of somebody else stays";
}

TEST_F(PlaceOfADownload, isKeptWhenSomethingWasStored) {
  const Place place(file("out"), false);
  writeFile(file("out"), "x");
  place.leaveIfEmpty();
  EXPECT_EQ(support::readFile(file("out")), "x");
}

TEST_F(PlaceOfADownload, hasAnEndToItsNumbers) {
  writeFile(file("out"), "");
  for (int i = 1; i < 1000; ++i) writeFile(file("out." + std::to_string(i)), "");
  EXPECT_NE(Place(file("out"), false).error().find("--overwrite"), std::string::npos);
}

TEST_F(PlaceOfADownload, thatCannotBeTakenIsLeftToTheDownloadToTellWhy) {
  const std::string tooLong = file(std::string(300, 'x'));
  const Place place(tooLong, false);
  EXPECT_EQ(place.error(), "");
  EXPECT_EQ(place.path(), tooLong);
}

TEST_F(PlaceOfADownload, newFileIsMadeOnceAndNeverTouchedAgain) {
  EXPECT_EQ(makeNewFile(file("new")), NewFile::Made);
  writeFile(file("new"), "x");
  EXPECT_EQ(makeNewFile(file("new")), NewFile::Exists);
  EXPECT_EQ(makeNewFile(file("none") + "/new"), NewFile::Failed);
  EXPECT_EQ(support::readFile(file("new")), "x");
}

}  // namespace
