#include "base/document.h"

#include <gtest/gtest.h>

#include <string>

#include "base/test/expect_message.h"

namespace velmorin {
namespace {

using Json = nlohmann::ordered_json;
using test::expectMessage;

TEST(FormatVersion, ReadsOlderAndRefusesNewer) {
    EXPECT_EQ(checkFormatVersion(Json::object(), 1, "graph JSON"), 1);
    EXPECT_EQ(checkFormatVersion(Json::parse(R"({"version": 2})"), 3, "node file"), 2);
    EXPECT_EQ(checkFormatVersion(Json::parse(R"({"version": 3.0})"), 3, "node file"), 3);
    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        {R"({"version": 4})",
         "look preset is of version 4, newer than this Velmorin reads: update Velmorin"},
        {R"({"version": 4.0})",
         "look preset is of version 4, newer than this Velmorin reads: update Velmorin"},
        {R"({"version": 18446744073709551615})",
         "look preset is of version 18446744073709551615, newer than this Velmorin reads: "
         "update Velmorin"},
        {R"({"version": 2.5})", "look preset: version 2.5 is not a whole number from 1"},
        {R"({"version": 0})", "look preset: version 0 is not a whole number from 1"},
        {R"({"version": "1"})", "look preset: version \"1\" is not a whole number from 1"},
    };
    for (const auto& c : cases) {
        expectMessage<SchemaError>(
            [&] { checkFormatVersion(Json::parse(c.text), 3, "look preset"); }, c.message);
    }
}

// A format as the readers describe theirs, with the version rule's optional parts switched on by
// the cases that need them.
DocumentFormat widgets(std::string_view newerVersion = {}, bool keysAreNames = false) {
    return {.kind = "widget data",
            .version = 2,
            .invalidJson = "invalid widget data: ",
            .notAnObject = "widget data: expected an object of widgets",
            .newerVersion = newerVersion,
            .keysAreNames = keysAreNames};
}

TEST(OpenDocument, BlankTextIsNoDocument) {
    for (const char* text : {"", " ", "\n\t \r\n"})
        EXPECT_FALSE(openDocument(text, widgets()).has_value()) << '"' << text << '"';
    EXPECT_TRUE(isBlankDocument(" \t\r\n"));
    EXPECT_FALSE(isBlankDocument(" {} "));
    EXPECT_FALSE(isBlankDocument("\f"));  // not JSON's white space: the parser refuses it
}

TEST(OpenDocument, OpensAnObjectOfAVersionItReads) {
    for (const char* text :
         {R"({"a": 1})", R"({"a": 1, "version": 1})", R"({"version": 2.0})", R"( {"a": 1} )"}) {
        const auto doc = openDocument(text, widgets());
        ASSERT_TRUE(doc.has_value()) << text;
        EXPECT_EQ(*doc, Json::parse(text)) << text;
    }
}

TEST(OpenDocument, RefusesWhatItCannotReadInTheFormatsWords) {
    const struct {
        const char* text;
        DocumentFormat format;
        const char* message;
    } cases[] = {
        {"[1]", widgets(), "widget data: expected an object of widgets"},
        {"3", widgets(), "widget data: expected an object of widgets"},
        {R"({"version": 3})", widgets(),
         "widget data is of version 3, newer than this Velmorin reads: update Velmorin"},
        // A format with its own words for a newer version keeps the shared words for the rest.
        {R"({"version": 3})", widgets("widget data is too new"), "widget data is too new"},
        {R"({"version": 0})", widgets("widget data is too new"),
         "widget data: version 0 is not a whole number from 1"},
        // Where keys are names, only a "version" that holds no object is the format's.
        {R"({"version": 3})", widgets({}, true),
         "widget data is of version 3, newer than this Velmorin reads: update Velmorin"},
    };
    for (const auto& c : cases)
        expectMessage<SchemaError>([&] { openDocument(c.text, c.format); }, c.message);

    const auto named = openDocument(R"({"version": {"a": 1}})", widgets({}, true));
    ASSERT_TRUE(named.has_value());
    EXPECT_EQ((*named)["version"]["a"], 1);
}

TEST(OpenDocument, WrapsTheLibrarysErrorsWithTheFormatsPrefix) {
    for (const char* text : {"{", R"({"a": })", "{} {}", "nul"}) {
        try {
            openDocument(text, widgets());
            ADD_FAILURE() << text;
        } catch (const SchemaError& error) {
            const std::string message = error.what();
            EXPECT_EQ(message.rfind("invalid widget data: [json.exception.parse_error.", 0), 0u)
                << message;
        }
    }
}

}  // namespace
}  // namespace velmorin
