#include "Filename.h"

#include <gtest/gtest.h>

TEST(Filename, ExtensionIsTheTextFromTheLastDot) {
    EXPECT_EQ(Filename::getFileExt("a.tar.gz"), ".gz");
    EXPECT_EQ(Filename::getFileExt("/tmp/dump.log"), ".log");
    EXPECT_EQ(Filename::getFileExt("ab."), ".");
    EXPECT_EQ(Filename::getFileExt("x."), ".");
    EXPECT_EQ(Filename::getFileExt("a.b c"), ".b c");
}

TEST(Filename, ADirectoryEndsTheScan) {
    EXPECT_EQ(Filename::getFileExt("dir.d/file"), "");
    EXPECT_EQ(Filename::getFileExt("dir.d/"), "");
    EXPECT_EQ(Filename::getFileExt("../file"), "");
}

TEST(Filename, TheFirstCharacterIsNeverExamined) {
    EXPECT_EQ(Filename::getFileExt(".hidden"), "");
    EXPECT_EQ(Filename::getFileExt("."), "");
    EXPECT_EQ(Filename::getFileExt(".."), ".");
    EXPECT_EQ(Filename::getFileExt("/.hidden"), ".hidden");
}

TEST(Filename, NoDotIsNoExtension) {
    EXPECT_EQ(Filename::getFileExt(""), "");
    EXPECT_EQ(Filename::getFileExt("x"), "");
    EXPECT_EQ(Filename::getFileExt("/"), "");
    EXPECT_EQ(Filename::getFileExt("file"), "");
}
