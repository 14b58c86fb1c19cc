// How texts become names in a folder, and back.
#include "shares/encoded_name.h"

#include <set>

#include <gtest/gtest.h>

namespace confirming {
namespace {

TEST(EncodedName, CanBeReadByAnOperator) {
    EXPECT_EQ(encodedName("rsync://root@10.0.0.1:49371/ramdisk/"),
              "rsync:%2F%2Froot@10.0.0.1:49371%2Framdisk%2F");
    EXPECT_EQ(encodedName("/data/run 7_a-b\n\xff%"), "%2Fdata%2Frun%207_a-b%0A%FF%25");
}

TEST(EncodedName, IsNeverAFolderItselfOrItsParent) {
    EXPECT_EQ(encodedName("."), "%2E");
    EXPECT_EQ(encodedName(".."), "%2E%2E");
    EXPECT_EQ(encodedName("..."), "...");
    EXPECT_EQ(encodedName(""), "");
}

TEST(EncodedName, IsDecodedForEveryByteAndDiffersForEach) {
    std::set<std::string> names;
    for (int byte = 0; byte < 256; ++byte) {
        for (const std::string& rest : {std::string(), std::string("."), std::string("x")}) {
            const std::string text = static_cast<char>(byte) + rest;
            const std::string name = encodedName(text);
            EXPECT_EQ(name.find_first_of(std::string_view("/\0", 2)), std::string::npos) << byte;
            EXPECT_EQ(decodedName(name), text) << byte;
            EXPECT_TRUE(names.insert(name).second) << byte;
        }
    }
}

TEST(DecodedName, IsNoneForWhatNoTextBecomes) {
    for (const char* name : {"%", "%2", "%2f", "%G0", "a%", "%41", ".", "..", "a b", "/", "a%2"}) {
        EXPECT_EQ(decodedName(name), std::nullopt) << name;
    }
    EXPECT_EQ(decodedName(""), "");
}

} // namespace
} // namespace confirming
