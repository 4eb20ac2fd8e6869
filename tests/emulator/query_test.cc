// The parts of the emulator that can be judged without a process: the query
// language, name folding, and the refresh token check of the handshake.
#include "query.h"

#include <gtest/gtest.h>

#include "drive_types.h"
#include "name_fold.h"
#include "startup.h"

using namespace DriveEmulator;

TEST(Query, RefusesIllFormedQueriesWithInvalidValue) {
    for (char const* query : {
             "",
             "name = 'it's'",  // an apostrophe the plug-in did not escape
             "name = 'open",
             "name = 'a\\b'",  // a backslash that escapes nothing
             "('P' in parents",
             "'P' in owners",
             "name = x",
             "trashed = maybe",
             "'P' in parents name = 'x'",
         }) {
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
    EXPECT_FALSE(parseQuery("'P' in parents").filtersByName);
    // Under "or" no single folder bounds the result.
    EXPECT_EQ("", parseQuery("'P' in parents or 'Q' in parents").requiredParent);
}

TEST(NameFold, IgnoresCaseBeyondAsciiAndKeepsBrokenBytes) {
    EXPECT_EQ(foldName("Ärger Öl"), foldName("äRGER öL"));
    EXPECT_EQ("a\xff\xfe", foldName("A\xff\xfe"));
}

TEST(EnvironmentCheck, Base64) {
    for (char const* valid : {"MS8vMGdSZWZyZXNoVG9rZW4=", "YWI", "1//0g-_x"}) {
        EXPECT_TRUE(isValidBase64(valid)) << valid;
    }
    // No byte string encodes to one character in a group; padding must complete one.
    for (char const* invalid : {"", "Y", "YWJjY", "YQ=", "YW=J", "has space"}) {
        EXPECT_FALSE(isValidBase64(invalid)) << invalid;
    }
}
