#include "Platform/File/ExtendedAttributes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <string>

#include <sys/xattr.h>

#include "tests/Support/TempDir.h"

using Moreld::File::ExtendedAttributes;

namespace loopstore::test {
namespace {

bool HasName(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

TEST(ExtendedAttributes, WritesReadsListsAndRemovesAnyBytes) {
    TempDir dir;
    const std::string path = dir / "00000001";
    CreatePreallocatedFile(path, 16);
    if (::setxattr(path.c_str(), "user.probe", "1", 1, 0) != 0 && errno == ENOTSUP) {
        GTEST_SKIP() << "the file system of " << dir.Path() << " has no user.* attributes";
    }

    const std::string binary("a\0b\xff", 4);
    ExtendedAttributes::Write(path, "user.__emptyFile", "1");
    ExtendedAttributes::Write(path, "user.originDirectory", "/data/pool");
    ExtendedAttributes::Write(path, "user.binary", binary);
    ExtendedAttributes::Write(path, "user.empty", "");
    ExtendedAttributes::Write(path, "user.originDirectory", "/data/tracks/7");  // replaces

    bool found = false;
    EXPECT_EQ(ExtendedAttributes::Read(path, "user.__emptyFile", found), "1");
    EXPECT_TRUE(found);
    EXPECT_EQ(ExtendedAttributes::Read(path, "user.originDirectory", found), "/data/tracks/7");
    EXPECT_EQ(ExtendedAttributes::Read(path, "user.binary", found), binary);
    EXPECT_EQ(ExtendedAttributes::Read(path, "user.empty", found), "");
    EXPECT_TRUE(found) << "an empty value is still a value";
    EXPECT_EQ(ExtendedAttributes::Read(path, "user.absent", found), "");
    EXPECT_FALSE(found);

    const std::vector<std::string> names = ExtendedAttributes::List(path);
    for (const char* name :
         {"user.probe", "user.__emptyFile", "user.originDirectory", "user.binary", "user.empty"}) {
        EXPECT_TRUE(HasName(names, name)) << name;
    }

    ExtendedAttributes::Remove(path, "user.binary");
    ExtendedAttributes::Remove(path, "user.binary");  // absent is fine
    ExtendedAttributes::Read(path, "user.binary", found);
    EXPECT_FALSE(found);
    EXPECT_FALSE(HasName(ExtendedAttributes::List(path), "user.binary"));

    const std::string large(3000, 'x');  // longer than any first guess of a buffer
    ExtendedAttributes::Write(path, "user.large", large);
    EXPECT_EQ(ExtendedAttributes::Read(path, "user.large", found), large);
}

TEST(ExtendedAttributes, FailuresNameThePathAndTheAttribute) {
    TempDir dir;
    const std::string missing = dir / "missing";
    bool found = true;
    auto expectError = [&](auto call, const std::string& attribute) {
        try {
            call();
            ADD_FAILURE() << "no error for " << attribute;
        } catch (const std::runtime_error& e) {
            const std::string text = e.what();
            EXPECT_NE(text.find(missing), std::string::npos) << text;
            EXPECT_NE(text.find(attribute), std::string::npos) << text;
            EXPECT_NE(text.find("No such file or directory"), std::string::npos) << text;
        }
    };
    expectError([&] { ExtendedAttributes::Write(missing, "user.a", "1"); }, "user.a");
    expectError([&] { ExtendedAttributes::Read(missing, "user.b", found); }, "user.b");
    expectError([&] { ExtendedAttributes::Remove(missing, "user.c"); }, "user.c");
    expectError([&] { ExtendedAttributes::List(missing); }, "");

    // A name outside any namespace is refused by the kernel, not ignored.
    const std::string path = dir / "f";
    CreatePreallocatedFile(path, 16);
    EXPECT_THROW(ExtendedAttributes::Write(path, "nonamespace", "1"), std::runtime_error);
}

}  // namespace
}  // namespace loopstore::test
