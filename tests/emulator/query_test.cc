// The parts of the emulator that can be judged without a process: the query
// language, name folding, and the refresh token check of the handshake.
#include "query.h"

#include <gtest/gtest.h>

#include "drive_types.h"
#include "name_fold.h"
#include "startup.h"

using namespace DriveEmulator;

namespace {

// The query rendered back as SQL with its parameters inlined: a compact way
// to compare parse trees in a table.
std::string shape(std::string const& text) {
    ParsedQuery parsed = parseQuery(text);
    std::vector<std::string> params;
    std::string sql = queryToSql(*parsed.root, params, "ROOT");
    for (auto const& p : params) {
        size_t at = sql.find('?');
        sql.replace(at, 1, "<" + p + ">");
    }
    return sql;
}

}  // namespace

TEST(Query, ParsesWhatThePluginSendsAndALittleMore) {
    struct Case {
        char const* query;
        char const* sql;
    } const cases[] = {
        {"('P' in parents)", "(o.id IN (SELECT child FROM parents WHERE parent = <P>))"},
        {"('P' in parents) and (name = 'Pool')",
         "((o.id IN (SELECT child FROM parents WHERE parent = <P>)) AND (o.folded = <pool>))"},
        // Drive's escapes: \' is an apostrophe, \\ a backslash.
        {"name = 'it\\'s'", "(o.folded = <it's>)"},
        {"name = 'a\\\\b'", "(o.folded = <a\\b>)"},
        {"name != 'x'", "(NOT (o.folded = <x>))"},
        {"name contains 'Back'", "(instr(' ' || o.folded, ' ' || <back>) > 0)"},
        {"trashed = false and mimeType = 'application/vnd.google-apps.folder'",
         "((o.trashed = 0) AND (o.is_dir = 1))"},
        {"not name = 'a' or name = 'b' and trashed = true",
         "((NOT (o.folded = <a>)) OR ((o.folded = <b>) AND (o.trashed = 1)))"},
        {"  'P'  IN   parents AND name='x'  ",
         "((o.id IN (SELECT child FROM parents WHERE parent = <P>)) AND (o.folded = <x>))"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.query);
        EXPECT_EQ(c.sql, shape(c.query));
    }
}

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
