// The parts of the emulator that can be judged without a process: the query
// language, name folding, and the refresh token check of the handshake.
#include "query.h"

#include <gtest/gtest.h>

#include "drive_types.h"
#include "name_fold.h"
#include "startup.h"

using namespace DriveEmulator;

TEST(Query, RefusesIllFormedQueriesWithInvalidValue) {
    char const* const cases[] = {
        "",
        "name = 'it's'",  // an apostrophe the plug-in did not escape
        "name = 'open",
        "name = 'a\\b'",  // a backslash that escapes nothing
        "('P' in parents",
        "'P' in owners",
        "name = x",
        "modifiedTime = 'x'",
        "trashed = maybe",
        "'P' in parents name = 'x'",
        "name = 'x' ; drop",
    };
    for (char const* query : cases) {
        SCOPED_TRACE(query);
        try {
            parseQuery(query);
            ADD_FAILURE() << "accepted";
        } catch (Error const& e) {
            EXPECT_EQ(400, e.code());
            EXPECT_STREQ("Invalid Value", e.what());
        }
    }
}

TEST(Query, KnowsWhichFolderAndWhetherNamesAreFiltered) {
    ParsedQuery both = parseQuery("('P' in parents) and (name = 'x')");
    EXPECT_EQ("P", both.requiredParent);
    EXPECT_TRUE(both.filtersByName);
    ParsedQuery folder = parseQuery("'P' in parents");
    EXPECT_EQ("P", folder.requiredParent);
    EXPECT_FALSE(folder.filtersByName);
    // Under "or" no single folder bounds the result.
    EXPECT_EQ("", parseQuery("'P' in parents or 'Q' in parents").requiredParent);
}

TEST(NameFold, IgnoresCaseBeyondAscii) {
    EXPECT_EQ("pool", foldName("POOL"));
    EXPECT_EQ(foldName("Ärger Öl"), foldName("äRGER öL"));
    EXPECT_EQ("straße", foldName("STRAßE"));
    std::string broken =
        "A\xff\xfe"
        "B";  // not UTF-8: kept byte for byte, ASCII folded
    EXPECT_EQ(
        "a\xff\xfe"
        "b",
        foldName(broken));
}

TEST(EnvironmentCheck, Base64) {
    struct Case {
        char const* text;
        bool valid;
    } const cases[] = {
        {"MS8vMGdSZWZyZXNoVG9rZW4=", true},
        {"YWJj", true},
        {"YWI", true},       // unpadded
        {"1//0g-_x", true},  // URL-safe alphabet
        {"", false},
        {"Y", false},    // no byte string encodes to one character
        {"YQ=", false},  // padding that does not complete a group
        {"YW=J", false},
        {"has space", false},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(c.valid, isValidBase64(c.text));
    }
}
