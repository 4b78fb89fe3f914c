#include "Storage/Indexes/File/DirectoryHandler.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>
#include <string>

#include "Platform/Logging/LogCapture.h"
#include "tests/Support/TempDir.h"

namespace fs = std::filesystem;
using loopstore::test::TempDir;
using tav::mr::logging::LogCapture;

namespace {

void MakeFile(const std::string& path) {
    std::ofstream(path) << "x";
}

// The message of the exception `action` throws, or "" when it throws none.
template <typename Action>
std::string ErrorOf(Action action) {
    try {
        action();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

}  // namespace

TEST(DirectoryHandler, ScanKeepsNumericDirectoriesOnly) {
    TempDir root;
    fs::create_directory(root / "3");
    fs::create_directory(root / "10");
    fs::create_directory(root / "abc");
    MakeFile(root / "7");
    LogCapture capture("DirectoryHandler");

    DirectoryHandler handler(root.Path());

    EXPECT_EQ(handler.GetRootDirectory(), root.Path());
    EXPECT_TRUE(handler.Exist(3));
    EXPECT_TRUE(handler.Exist(10));
    EXPECT_FALSE(handler.Exist(7));  // a file, not a track directory
    EXPECT_FALSE(handler.Exist(0));
    EXPECT_TRUE(capture.HasExactly("Found directory " + (root / "3") + " on " + root.Path()));
    EXPECT_EQ(capture.LevelOf("Found directory " + (root / "10")), 20);
    EXPECT_EQ(capture.Count("Found directory"), 2u);
    const std::string notANumber =
        "A not-a-number-directory has been discovered: " + (root / "abc");
    EXPECT_TRUE(capture.HasExactly(notANumber));
    EXPECT_EQ(capture.LevelOf(notANumber), 40);
    EXPECT_TRUE(capture.HasExactly("Greatest Id is 10 on " + root.Path()));
    EXPECT_FALSE(capture.Contains("created"));  // the root was there already

    // The next free id follows the greatest, and is not recorded: a second
    // call picks it again and finds the directory already on disk.
    EXPECT_EQ(handler.Create(), 11);
    EXPECT_TRUE(fs::is_directory(root / "11"));
    EXPECT_FALSE(handler.Exist(11));
    EXPECT_EQ(handler.Create(), 0);
    EXPECT_EQ(capture.LevelOf("Directory " + (root / "11") + " could not be created"), 50);
}

TEST(DirectoryHandler, EmptyRootStartsAtOne) {
    TempDir root;
    LogCapture capture("DirectoryHandler");
    DirectoryHandler handler(root.Path());
    EXPECT_TRUE(capture.HasExactly("No number-directory on " + root.Path()));
    EXPECT_FALSE(capture.Contains("Greatest Id"));

    EXPECT_EQ(handler.Create(), 1);
    EXPECT_TRUE(fs::is_directory(root / "1"));
    EXPECT_TRUE(capture.HasExactly("Directory " + (root / "1") + " created"));
}

TEST(DirectoryHandler, OnlyNamesItGivesAreTracks) {
    TempDir root;
    for (const char* name : {"007", "12abc", "-4", "+5", "99999999999999999999", "9"})
        fs::create_directory(root / name);
    LogCapture capture("DirectoryHandler");
    DirectoryHandler handler(root.Path());

    // A folder the store did not name is not a track: deleting "track 7"
    // must never remove someone's "007".
    EXPECT_EQ(handler.GetIds(), std::set<long>{9});
    EXPECT_TRUE(capture.HasExactly("Greatest Id is 9 on " + root.Path()));
    EXPECT_TRUE(capture.HasExactly("Ignoring directory " + (root / "007") +
                                   ": not a track directory name"));
    EXPECT_TRUE(
        capture.HasExactly("Ignoring directory " + (root / "-4") + ": not a track directory name"));
    handler.Delete(7);
    EXPECT_TRUE(fs::is_directory(root / "007"));

    // An unknown id is an error, but still answers with its path.
    EXPECT_EQ(handler.GetPath(8), root / "8");
    const std::string missing = "Directory 8 doesn't exist. Root directory is " + root.Path() +
                                " and available sub-directories are: 9 ";
    EXPECT_TRUE(capture.HasExactly(missing));
    EXPECT_EQ(capture.LevelOf(missing), 50);
}

TEST(DirectoryHandler, CreateById) {
    TempDir root;
    LogCapture capture("DirectoryHandler");
    DirectoryHandler handler(root.Path());

    EXPECT_TRUE(handler.Create(5));
    EXPECT_TRUE(fs::is_directory(root / "5"));
    EXPECT_TRUE(handler.Exist(5));
    EXPECT_TRUE(capture.HasExactly("Directory " + (root / "5") + " created"));
    EXPECT_EQ(capture.LevelOf("Directory " + (root / "5") + " created"), 30);

    EXPECT_FALSE(handler.Create(5));
    const std::string known = "Directory " + root.Path() + "/5 already exists";
    EXPECT_TRUE(capture.HasExactly(known));
    EXPECT_EQ(capture.LevelOf(known), 40);

    // Created ids count for the next free id.
    EXPECT_EQ(handler.Create(), 6);

    // On disk but unknown (made behind the handler's back): a failure, and
    // the id stays unknown.
    fs::create_directory(root / "20");
    EXPECT_EQ(ErrorOf([&] { handler.Create(20); }),
              "Directory " + (root / "20") + " could not be created");
    EXPECT_FALSE(handler.Exist(20));
}

TEST(DirectoryHandler, DeleteRemovesEverythingAndForgetsTheId) {
    TempDir root;
    LogCapture capture("DirectoryHandler");
    DirectoryHandler handler(root.Path());
    ASSERT_TRUE(handler.Create(5));
    fs::create_directory(root / "5/sub");
    MakeFile(root / "5/00000001");
    MakeFile(root / "5/sub/00000002");

    handler.Delete(5);
    EXPECT_FALSE(fs::exists(root / "5"));
    EXPECT_FALSE(handler.Exist(5));
    EXPECT_EQ(capture.LevelOf("Removed directory " + (root / "5")), 30);

    // Nothing to remove is not an error.
    EXPECT_NO_THROW(handler.Delete(9));
    EXPECT_TRUE(capture.HasExactly("Removed directory " + (root / "9")));
    EXPECT_FALSE(capture.Contains("Error to remove"));
    EXPECT_TRUE(fs::is_directory(root.Path()));
}

TEST(DirectoryHandler, FailedDeleteIsLoggedAndKeepsTheId) {
    // The only removal failure that root can meet too: a path longer than
    // the system accepts. The tracks root is built just short of the limit.
    TempDir base;
    TempDir other;
    std::string longRoot = base.Path();
    while (longRoot.size() < 4080) {
        longRoot += "/" + std::string(std::min<size_t>(200, 4080 - longRoot.size() - 1), 'd');
    }
    fs::create_directories(longRoot);
    const long id = 1234567890123456;
    fs::create_directory(other / std::to_string(id));
    DirectoryHandler handler(longRoot);
    handler.ParseDirectory(other.Path());
    ASSERT_TRUE(handler.Exist(id));
    LogCapture capture("DirectoryHandler");

    EXPECT_NO_THROW(handler.Delete(id));
    EXPECT_TRUE(handler.Exist(id));
    const std::string prefix =
        "Error to remove directory " + longRoot + "/" + std::to_string(id) + "  -->  ";
    ASSERT_EQ(capture.Count(prefix), 1u);
    EXPECT_EQ(capture.LevelOf(prefix), 50);
    EXPECT_GT(capture.Texts().back().size(), prefix.size());  // the reason follows
    EXPECT_FALSE(capture.Contains("Removed directory"));
}

TEST(DirectoryHandler, RootMustBeADirectory) {
    TempDir base;

    // A missing root is created, one level only.
    {
        LogCapture capture("DirectoryHandler");
        DirectoryHandler handler(base / "tracks");
        EXPECT_TRUE(fs::is_directory(base / "tracks"));
        EXPECT_TRUE(capture.HasExactly("Directory " + (base / "tracks") + " created"));
    }
    EXPECT_EQ(ErrorOf([&] { DirectoryHandler handler(base / "a/b"); }),
              (base / "a/b") + " is not a directory");
    EXPECT_FALSE(fs::exists(base / "a"));

    MakeFile(base / "file");
    EXPECT_EQ(ErrorOf([&] { DirectoryHandler handler(base / "file"); }),
              (base / "file") + " is not a directory");
}
