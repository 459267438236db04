#include "files/json_scan.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace velmorin::detail {
namespace {

using Json = nlohmann::ordered_json;

// The tree with packed numbers as arrays and kept sections parsed, to set against the library's.
Json unpacked(const Json& json) {
    if (isPacked(json)) {
        Json out = Json::array();
        for (std::size_t i = 0; i < packedCount(json); ++i)
            out.push_back(packedAt(json, i));
        return out;
    }
    if (auto text = rawText(json)) return Json::parse(*text);
    if (json.is_structured()) {
        Json out = json;
        for (auto& [key, value] : out.items())
            value = unpacked(value);
        return out;
    }
    return json;
}

TEST(JsonScan, VouchesOnlyForWhatTheLibraryReadsAlike) {
    struct Case {
        std::string text;
        bool vouched;  // the scanner reads it itself
    };
    const std::vector<Case> cases = {
        {R"({"a":[1,2,3,4,5],"b":[1,2],"c":{"d":[0.5,-0.0,1e-45,3.4028235e38]}})", true},
        {R"( { "graph" : { "nodes" : [ ] } , "x" : [ 1 , 2 , 3 , 4 ] } )", true},
        {R"(["tab\there","quote\"","\u00e9\ud83d\ude00","ü","/\/\\"])", true},
        {R"({"k":1,"k":[1,2,3,4]})", true},
        {R"([18446744073709551615,-9223372036854775808,18446744073709551616,1E2,-1.5e-3])", true},
        {R"([true,false,null,[],{},[[1,2,3,4,"x"]]])", true},
        {"[1e400]", false},
        {"[1,2,3,1e400]", false},
        {std::string(300, '[') + std::string(300, ']'), false},
        {R"(["\ud800"])", false},
        {R"(["\udc00x"])", false},
        {"[\"\xC0\xAF\"]", false},
        {"[\"\xED\xA0\x80\"]", false},
        {"[\"a\x01\"]", false},
        {"[01]", false},
        {"[1.]", false},
        {"[.5]", false},
        {"[-]", false},
        {"[+1]", false},
        {"[1,]", false},
        {"{\"a\":1,}", false},
        {"[1] x", false},
        {"[tru]", false},
        {"", false},
    };
    const std::string_view raw[] = {"graph"};
    for (const Case& c : cases) {
        const Json library = Json::parse(c.text, nullptr, false);
        const auto scanned = scanJson(c.text, raw);
        EXPECT_EQ(scanned.has_value(), c.vouched) << c.text;
        if (scanned) {
            ASSERT_FALSE(library.is_discarded()) << c.text;
            EXPECT_EQ(unpacked(*scanned), library) << c.text;
        }
        const auto compact = compactJson(c.text);
        EXPECT_EQ(compact.has_value(), c.vouched) << c.text;
        if (compact) {
            EXPECT_EQ(Json::parse(*compact), library) << c.text;
        }
    }
    EXPECT_EQ(compactJson(R"( { "a" : [ 1 , 2.50 ] , "b c" : " x " } )"),
              R"({"a":[1,2.50],"b c":" x "})");
}

TEST(JsonScan, PacksLongNumberArraysAndKeepsNamedSectionsAsText) {
    const std::string_view raw[] = {"graph"};
    const auto json = scanJson(R"({"p":[1,2,3,4],"q":[1,2,3],"graph":{ "a" : [1,2,3,4] },)"
                               R"("inner":{"graph":{"b":1}}})",
                               raw);
    ASSERT_TRUE(json);
    EXPECT_TRUE(isPacked((*json)["p"]));
    EXPECT_EQ(packedCount((*json)["p"]), 4u);
    EXPECT_EQ(packedAt((*json)["p"], 3), 4.0);
    EXPECT_TRUE((*json)["q"].is_array());
    EXPECT_EQ(rawText((*json)["graph"]), R"({"a":[1,2,3,4]})");
    // Only a top-level key is kept as text.
    EXPECT_EQ((*json)["inner"]["graph"], Json::parse(R"({"b":1})"));
}

}  // namespace
}  // namespace velmorin::detail
