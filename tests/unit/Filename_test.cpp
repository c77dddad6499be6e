#include "Filename.h"

#include <gtest/gtest.h>

/// The extension is the text from the last dot on, the dot included.
TEST(Filename, ExtensionIsTheTextFromTheLastDot) {
    EXPECT_EQ(Filename::getFileExt("a.tar.gz"), ".gz");
    EXPECT_EQ(Filename::getFileExt("/tmp/dump.log"), ".log");
    EXPECT_EQ(Filename::getFileExt("ab."), ".");
    EXPECT_EQ(Filename::getFileExt("x."), ".");
    EXPECT_EQ(Filename::getFileExt("a.b c"), ".b c");
}

/// A slash ends the scan without an extension.
TEST(Filename, ADirectoryEndsTheScan) {
    EXPECT_EQ(Filename::getFileExt("dir.d/file"), "");
    EXPECT_EQ(Filename::getFileExt("dir.d/"), "");
    EXPECT_EQ(Filename::getFileExt("../file"), "");
}

/// The first character is never examined.
TEST(Filename, TheFirstCharacterIsNeverExamined) {
    EXPECT_EQ(Filename::getFileExt(".hidden"), "");
    EXPECT_EQ(Filename::getFileExt("."), "");
    EXPECT_EQ(Filename::getFileExt(".."), ".");
    EXPECT_EQ(Filename::getFileExt("/.hidden"), ".hidden");
}

/// No dot and no name give no extension.
TEST(Filename, NoDotIsNoExtension) {
    EXPECT_EQ(Filename::getFileExt(""), "");
    EXPECT_EQ(Filename::getFileExt("x"), "");
    EXPECT_EQ(Filename::getFileExt("/"), "");
    EXPECT_EQ(Filename::getFileExt("file"), "");
}
