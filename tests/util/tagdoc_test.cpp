// Tests of the tagged-text scanner: the rules deciding what the Depot reads back from entry files.
#include "fanout/tagdoc.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

// The text of a range, or "<absent>".
std::string Text(TagRange r) {
    if (r.first == nullptr) return r.last == nullptr ? "<absent>" : "<no first>";
    if (r.last == nullptr) return "<open>";
    return std::string(r.first, static_cast<size_t>(r.last - r.first + 1));
}

struct ScopeCase {
    const char* doc;
    const char* tag;
    const char* content;  // with whole 0
    const char* element;  // with whole 1
    int limit = -1;       // the region's last character (-1: none)
};

TEST(TagDoc, ScopeFollowsTheEntryFileRules) {
    const ScopeCase cases[] = {
        {"<id>7</id>\n", "id", "7", "<id>7</id>"},
        // The closing '>' as the region's last character is not found: the
        // content then runs to the end and the element has no end.
        {"<id>7</id>", "id", "7</id>", "<open>"},
        // A longer name sharing the prefix is skipped.
        {"<identity>x</identity>\n<id>y</id>\n", "id", "y", "<id>y</id>"},
        // Attributes are skipped; the element ends at the first closing tag.
        {"<id kind=\"a\">z</id>\n", "id", "z", "<id kind=\"a\">z</id>"},
        // An opening tag whose '>' comes after another '<' is not accepted.
        {"<id <x>bad</id> <id>good</id>\n", "id", "good", "<id>good</id>"},
        {"<state></state>\n", "state", "", "<state></state>"},
        {"<a>1</a>\n", "id", "<absent>", "<absent>"},
        {"x", "id", "<absent>", "<absent>"},
        {"", "id", "<absent>", "<absent>"},
        {"<id>7</id>\n", "", "<absent>", "<absent>"},
        // A limit ends the region; on the closing '>' it hides the closing tag.
        {"<id>7</id>\n<version>2</version>\n", "id", "7", "<id>7</id>", 10},
        {"<id>7</id>\n<version>2</version>\n", "version", "<absent>", "<absent>", 10},
        {"<id>7</id>\n<version>2</version>\n", "id", "7</id>", "<open>", 9},
    };
    for (const auto& c : cases) {
        const char* limit = c.limit < 0 ? nullptr : c.doc + c.limit;
        EXPECT_EQ(Text(getTagScope(c.tag, c.doc, limit, 0)), c.content) << c.doc << c.limit;
        EXPECT_EQ(Text(getTagScope(c.tag, c.doc, limit, 1)), c.element) << c.doc << c.limit;
    }
}

TEST(TagDoc, SelfClosingElementHasNoContent) {
    const char* doc = "<checksum/>\n";
    const TagRanges r = getTagRanges("checksum", doc, nullptr);
    ASSERT_NE(r.openStart, nullptr);
    EXPECT_EQ(r.contentStart, nullptr);
    EXPECT_EQ(r.contentEnd, nullptr);
    EXPECT_EQ(r.closeStart, r.openStart);
    EXPECT_EQ(r.closeEnd, r.openEnd);
    EXPECT_EQ(r.openEnd, doc + 10);
}

TEST(TagDoc, DocType) {
    const char* doc = "<!DOCTYPE html>\n<id>1</id>\n";
    EXPECT_EQ(Text(getDocType(doc, nullptr, 0)), "html");
    EXPECT_EQ(Text(getDocType(doc, nullptr, 1)), "<!DOCTYPE html>");
    EXPECT_EQ(Text(getDocType("<!DOCTYPE   depot entry>\n", nullptr, 0)), "depot");
    EXPECT_EQ(Text(getDocType("<id>1</id>\n", nullptr, 0)), "<absent>");
    EXPECT_EQ(Text(getDocType(nullptr, nullptr, 0)), "<absent>");
}

struct AddCase {
    const char* doc;
    const char* content;
    int replace;
    const char* result;  // null: refused as absent
};

TEST(TagDoc, AddContentInsertsInFrontOrReplaces) {
    const AddCase cases[] = {
        {"<id>old</id>\n", "new", 0, "<id>newold</id>\n"},
        {"<id>old</id>\n", "new", 1, "<id>new</id>\n"},
        {"<id>longer</id>\n", "x", 1, "<id>x</id>\n"},
        {"<id></id>\n<v>1</v>\n", "abc", 1, "<id>abc</id>\n<v>1</v>\n"},
        {"<id/>\n", "abc", 1, nullptr},
        {"<v>1</v>\n", "abc", 1, nullptr},
    };
    for (const auto& c : cases) {
        char buffer[64] = {};
        std::strcpy(buffer, c.doc);
        char* docEnd = buffer + std::strlen(buffer) - 1;
        const char* content = c.content;
        TagRange r = addContentToTag(buffer, docEnd, nullptr, buffer + sizeof buffer - 1, "id",
                                     content, content + std::strlen(content) - 1, c.replace);
        if (c.result == nullptr) {
            EXPECT_EQ(r.first, nullptr) << c.doc;
            EXPECT_EQ(r.last, nullptr) << c.doc;
            continue;
        }
        ASSERT_EQ(r.first, buffer) << c.doc;
        r.last[1] = '\0';
        EXPECT_STREQ(buffer, c.result);
    }
}

TEST(TagDoc, AddContentReportsTheRoomItNeedsAndChangesNothing) {
    char buffer[16] = "<id>ab</id>\n";
    char* docEnd = buffer + 11;
    const char* content = "123456";
    TagRange r =
        addContentToTag(buffer, docEnd, nullptr, buffer + 13, "id", content, content + 5, 0);
    EXPECT_EQ(r.first, nullptr);
    EXPECT_EQ(r.last, docEnd + 6);
    EXPECT_STREQ(buffer, "<id>ab</id>\n");
}

}  // namespace
