#include <kest/variant/uri.h>
#include <kest/variant/variant.h>

#include <cmath>
#include <iterator>
#include <limits>
#include <sstream>
#include <tuple>

#include "support/clean_test.h"

namespace {

using namespace kest::variant;
using VariantTest = kest::test::CleanTest;

constexpr long long kMin = std::numeric_limits<long long>::min();
constexpr long long kMax = std::numeric_limits<long long>::max();
constexpr unsigned long long kHuge = std::numeric_limits<unsigned long long>::max();
const double kInfinity = std::numeric_limits<double>::infinity();
const double kNaN = std::numeric_limits<double>::quiet_NaN();

std::string repeat(const std::string& text, int times) {
    std::string all;
    for (; times > 0; --times)
        all += text;
    return all;
}

TEST_F(VariantTest, NumbersConvertWithoutSurprise) {
    const std::tuple<Variant, long long, unsigned long long, double, VariantType, unsigned short,
                     bool>
        cases[] = {
            {{}, 0, 0, 0, VariantType::Null, 0, false},
            {true, 1, 1, 1, VariantType::Bool, 1, true},
            {70000, 70000, 70000, 70000, VariantType::Int64, 65535, true},
            {-1, -1, kHuge, -1, VariantType::Int64, 0, true},
            {kMin, kMin, 1ULL << 63, -0x1p63, VariantType::Int64, 0, true},
            {kHuge, -1, kHuge, 0x1p64, VariantType::UInt64, 65535, true},
            {-2.9, -2, 0, -2.9, VariantType::Double, 0, true},
            {0x1p63, kMax, 1ULL << 63, 0x1p63, VariantType::Double, 65535, true},
            {-kInfinity, kMin, 0, -kInfinity, VariantType::Double, 0, true},
            {1e300, kMax, kHuge, 1e300, VariantType::Double, 65535, true},
            {"-15", -15, kHuge - 14, -15, VariantType::String, 0, true},
            {"+007", 7, 7, 7, VariantType::String, 7, true},
            {"018446744073709551615", -1, kHuge, 0x1p64, VariantType::String, 65535, true},
            {"18446744073709551616", kMax, kHuge, 0x1p64, VariantType::String, 65535, true},
            {"1.5e3", 1500, 1500, 1500, VariantType::String, 1500, true},
            {"true", 0, 0, 0, VariantType::String, 0, true},
            {timeval{12, 500000}, 12, 12, 12.5, VariantType::TimeVal, 12, true},
        };
    for (const auto& [value, asSigned, asUnsigned, asDouble, type, asShort, asBool] : cases) {
        SCOPED_TRACE(value.ToJson());
        EXPECT_EQ(type, static_cast<VariantType>(value));
        EXPECT_EQ(asSigned, static_cast<long long>(value));
        EXPECT_EQ(asUnsigned, static_cast<unsigned long long>(value));
        EXPECT_EQ(asShort, static_cast<unsigned short>(value));
        EXPECT_EQ(asDouble, static_cast<double>(value));
        EXPECT_EQ(asBool, static_cast<bool>(value));
    }
    EXPECT_EQ(0, static_cast<int>(Variant(kNaN)));
}

TEST_F(VariantTest, WhatIsNotANumberCountsAsZero) {
    for (const char* word :
         {"", " 5", "5 ", "0x10", "1e999", "+-5", "--5", "1.2.3", "[5]", "nan"}) {
        EXPECT_TRUE(static_cast<int>(Variant(word)) == 0 && !Variant(word)) << word;
    }
    EXPECT_EQ(0U, static_cast<unsigned>(BaseVariantContainer()));
    EXPECT_EQ("", static_cast<const std::string&>(Variant(5)));
    EXPECT_EQ(0, static_cast<const timeval&>(Variant("5")).tv_sec);
}

TEST_F(VariantTest, KeysAreInsertedByWritersOnly) {
    Variant value = "no object yet";
    const Variant& reader = value;
    EXPECT_EQ(0, static_cast<unsigned short>(value["port"]));
    value[std::string("a\0b", 3)] = "nul";
    EXPECT_TRUE(reader["missing"] == VariantType::Null && reader.Find("missing") == nullptr);
    EXPECT_EQ(R"({"a\u0000b":"nul","port":null})", value.ToJson());
    EXPECT_EQ("nul", reader[std::string("a\0b", 3)]);
    EXPECT_TRUE(value.Remove("port") && !value.Remove("port"));
    EXPECT_EQ(1U, reader.Members().size());
}

TEST_F(VariantTest, ContainerNormalizesToAnObject) {
    BaseVariantContainer message;
    message["key"] = 1;
    message.NormalizeFields();
    EXPECT_EQ("{\"key\":1}", message.ToJson());
    message.Append(7);
    EXPECT_TRUE(*message.At(0) == 7 && message.At(1) == nullptr);
    message.NormalizeFields();
    EXPECT_EQ("{}", message.ToJson());
}

TEST_F(VariantTest, CopiesAreDeepAndMovesLeaveNull) {
    Variant original;
    original["list"].Append("first");
    Variant copy = original;
    copy["list"].Append("second");
    EXPECT_EQ(1U, original["list"].Elements().size());

    const Variant moved = std::move(original);
    EXPECT_TRUE(original == VariantType::Null);  // NOLINT: what is left is the subject
    EXPECT_EQ("[\"first\"]", moved["list"].ToJson());

    copy = copy["list"];
    EXPECT_EQ("[\"first\",\"second\"]", copy.ToJson());
    copy = std::move(*copy.At(1));
    EXPECT_EQ("second", copy);
}

TEST_F(VariantTest, EqualityAsksForTheTypeButNotForTheSign) {
    EXPECT_TRUE(Variant(5) == Variant(5ULL));
    const Variant different[] = {-1,           kHuge, 5, 5.0, "5", nullptr, false, timeval{1, 2},
                                 timeval{1, 3}};
    for (const Variant& a : different) {
        for (const Variant& b : different)
            EXPECT_TRUE((a == b) == (&a == &b) && (a != b) == (&a != &b));
    }
}

// Exact and plain text of every type; the exact one must read back as what it was.
TEST_F(VariantTest, JsonKeepsValuesAndTypes) {
    Variant list, tagLike, nested, bytes;
    list.IsArray(true);
    tagLike["$timeval"] = list;
    tagLike["$timeval"].Append(1);
    tagLike["$timeval"].Append(2);
    nested["$object"] = tagLike;
    const std::tuple<Variant, const char*, const char*> cases[] = {
        {{}, "null", "null"},
        {true, "true", "true"},
        {kMin, "-9223372036854775808", "-9223372036854775808"},
        {5ULL, R"({"$uint64":5})", "5"},
        {kHuge, "18446744073709551615", "18446744073709551615"},
        {2.0, "2.0", "2.0"},
        {-0.0, "-0.0", "-0.0"},
        {kInfinity, R"({"$double":"Infinity"})", "null"},
        {-kInfinity, R"({"$double":"-Infinity"})", "null"},
        {kNaN, R"({"$double":"NaN"})", "null"},
        {"a\\ \"b\"\n", R"("a\\ \"b\"\n")", R"("a\\ \"b\"\n")"},
        {std::string("\0\x7f\xc3\xa9", 4), "\"\\u0000\x7f\xc3\xa9\"", "\"\\u0000\x7f\xc3\xa9\""},
        {timeval{-1, 500000}, R"({"$timeval":[-1,500000]})", "-0.5"},
        {list, "[]", "[]"},
        {tagLike, R"({"$object":{"$timeval":[1,2]}})", R"({"$timeval":[1,2]})"},
        {nested, R"({"$object":{"$object":{"$object":{"$timeval":[1,2]}}}})",
         R"({"$object":{"$timeval":[1,2]}})"},
    };
    for (const auto& [value, exact, plain] : cases) {
        EXPECT_EQ(exact, value.ToJson());
        EXPECT_EQ(plain, value.ToJson(JsonStyle::Plain));
        Variant back = "before";
        EXPECT_TRUE(Variant::FromJson(exact, back)) << exact;
        EXPECT_EQ(static_cast<VariantType>(value), static_cast<VariantType>(back));
        EXPECT_EQ(exact, back.ToJson());
    }
    bytes["\xfe"] = "a\xff";
    EXPECT_EQ("{\"\xef\xbf\xbd\":\"a\xef\xbf\xbd\"}", bytes.ToJson());
}

TEST_F(VariantTest, MalformedTagsStayObjects) {
    for (const char* form :
         {R"({"$timeval":[1]})", R"({"$timeval":[1,1000000]})", R"({"$timeval":[1,-1000000]})",
          R"({"$timeval":[1,2.5]})", R"({"$uint64":-5})", R"({"$double":"x"})", R"({"$object":5})",
          R"({"$timeval":[1,2],"more":3})"}) {
        Variant value;
        EXPECT_TRUE(Variant::FromJson(form, value) && value == VariantType::Object) << form;
    }
}

TEST_F(VariantTest, GarbageAndExcessLeaveTheTargetAlone) {
    std::vector<std::string> bad = {
        "",    " ",   "{",     "[1,]",        "{\"a\":1,}", "nul",   "01",       "1 2",
        "'a'", "NaN", "1e999", "\"\\ud800\"", "\"\xff\"",   "/**/1", "\"a\nb\"", "{1:2}"};
    bad.insert(bad.end(), {std::string("1\0", 2), repeat("[", 65) + repeat("]", 65),
                           std::string(1 << 20, '['), repeat("{\"a\":", 65) + "1" + repeat("}", 65),
                           "[" + repeat("0,", 65535) + "0]", std::string(1 << 20, ' ') + "1"});
    Variant target = "untouched";
    for (const std::string& document : bad) {
        EXPECT_FALSE(Variant::FromJson(document, target)) << document.substr(0, 40);
        EXPECT_EQ("untouched", target);
    }
    EXPECT_TRUE(Variant::FromJson(repeat("[", 64) + repeat("]", 64), target));
    EXPECT_TRUE(Variant::FromJson("[" + repeat("0,", 65534) + "0]", target));
    EXPECT_TRUE(Variant::FromJson(std::string((1 << 20) - 1, ' ') + "1", target));
    EXPECT_FALSE(Variant::FromJson("[1]", target, JsonLimits{2, 64, 10}));
}

// Whatever the limits let in can be written and read again; what is deeper is cut off.
TEST_F(VariantTest, WritingStopsAtTheDepthThatCanBeReadBack) {
    Variant deep = timeval{1, 2};
    for (unsigned i = 0; i < JsonLimits::kMaxDepth; ++i) {
        Variant outer;
        outer.Append(nullptr).Append(nullptr)["$object"] = std::move(deep);
        deep = std::move(outer);
    }
    const JsonLimits limits{1 << 20, 100000, 1000};
    Variant back;
    EXPECT_FALSE(Variant::FromJson(repeat("[", 257) + repeat("]", 257), back, limits));
    ASSERT_TRUE(Variant::FromJson(deep.ToJson(), back, limits));
    EXPECT_EQ(deep.ToJson(), back.ToJson());
}

TEST_F(VariantTest, UriTakesAddressesApart) {
    const std::pair<const char*, const char*> cases[] = {
        {"ws://cam", R"({"fullDocumentPath":"/","host":"cam","port":80,"scheme":"ws"})"},
        {"WSS://Cam.local:/a%20b?x=/?#f",
         R"({"fullDocumentPath":"/a%20b?x=/?","host":"Cam.local","port":443,"scheme":"wss"})"},
        {"https://[fe80::1]:65535?q",
         R"({"fullDocumentPath":"/?q","host":"fe80::1","port":65535,"scheme":"https"})"},
        {"http://u:p:w@10.0.0.1:0081#f",
         R"({"fullDocumentPath":"/","host":"10.0.0.1","password":"p:w","port":81,)"
         R"("scheme":"http","userName":"u"})"},
        {"a+b.c-1://h//", R"({"fullDocumentPath":"//","host":"h","port":0,"scheme":"a+b.c-1"})"},
    };
    for (const auto& [address, parts] : cases) {
        URI uri;
        EXPECT_TRUE(URI::FromString(address, uri)) << address;
        EXPECT_EQ(parts, uri.ToJson());
    }
}

TEST_F(VariantTest, UriRefusesGarbage) {
    // None of these has a blank.
    std::istringstream list(R"(ws ws: ws:/h ws:// ws:///p ws://:80/ ws://u@/ //h/ 1s://h/ ://h
        w_s://h ws://h:0/ ws://h:65536/ ws://h:-1/ ws://h:8x/ ws://h:80:80/ ws://a@b@h/ ws://[::1
        ws://[]/ ws://[::1]x/ ws://[1.2.3.4]/ ws://::1/ ws://[fe80::1%25eth0]/ ws://h% ws://h/%4
        ws://h/%zz ws://h\p/)");
    std::vector<std::string> bad(std::istream_iterator<std::string>(list), {});
    bad.insert(bad.end(),
               {"", std::string("ws://[::1\0]/", 12), "ws://h/" + std::string(8192, 'a')});
    URI uri;
    uri["host"] = "before";
    for (const std::string& address : bad) {
        EXPECT_FALSE(URI::FromString(address, uri)) << address.substr(0, 40);
        EXPECT_EQ("before", uri["host"]);
    }
    EXPECT_FALSE(URI::FromString(std::string_view("ws://h/%41", 9), uri));
    const std::string good = "ws://u:p@h:80/a?b#c";
    for (size_t at = 0; at <= good.size(); ++at) {
        for (int byte = 0; byte < 256; byte = byte == ' ' ? 0x7f : byte + 1) {
            const std::string address = std::string(good).insert(at, 1, static_cast<char>(byte));
            EXPECT_FALSE(URI::FromString(address, uri)) << byte << " at " << at;
        }
    }
}

}  // namespace
