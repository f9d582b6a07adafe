// kelp-web's translation: daemon messages to JSON events, the page's JSON
// to request text, and the strictness of both.
#include "wire.h"

#include <gtest/gtest.h>

using namespace kweb;

namespace {

std::string event(std::string_view text)
{
    std::string json;
    EXPECT_TRUE(message_to_json(text, &json)) << text;
    return json;
}

std::vector<json_member> object(std::string_view text)
{
    std::vector<json_member> obj;
    EXPECT_TRUE(json_parse_object(text, &obj)) << text;
    return obj;
}

} // namespace

TEST(wire, LoginAnswerListsTheFeeds)
{
    EXPECT_EQ(event("OK\tlogin\tdomain:rss\tprofile_id:1\tname:News\tfeed_id:4\tname:Radio\tfeed_id:9"),
              "{\"type\":\"answer\",\"ok\":true,\"cmd\":\"login\",\"domain\":\"rss\",\"profile_id\":1,"
              "\"feeds\":[{\"name\":\"News\",\"feed_id\":4},{\"name\":\"Radio\",\"feed_id\":9}]}");
}

TEST(wire, LoginWithoutFeedsHasAnEmptyList)
{
    EXPECT_EQ(event("OK\tlogin\tdomain:podcast\tprofile_id:7"),
              "{\"type\":\"answer\",\"ok\":true,\"cmd\":\"login\",\"domain\":\"podcast\",\"profile_id\":7,"
              "\"feeds\":[]}");
}

TEST(wire, FeedWithoutNumericIdIsLeftOut)
{
    EXPECT_EQ(event("OK\taccounts\tdomain:rss\tprofile_id:1\tname:Odd\tfeed_id:x7\tname:News\tfeed_id:4"),
              "{\"type\":\"answer\",\"ok\":true,\"cmd\":\"accounts\",\"domain\":\"rss\",\"profile_id\":1,"
              "\"feeds\":[{\"name\":\"News\",\"feed_id\":4}]}");
}

TEST(wire, ErrorAnswerCarriesCodeAndName)
{
    EXPECT_EQ(event("ERROR\tstatus\t20:KD_NO_INTERNET\tdomain:podcast\tprofile_id:2"),
              "{\"type\":\"answer\",\"ok\":false,\"cmd\":\"status\",\"error\":{\"code\":20,"
              "\"name\":\"KD_NO_INTERNET\"},\"domain\":\"podcast\",\"profile_id\":2}");
}

TEST(wire, ErrorAnswerWithEmptyDomain)
{
    EXPECT_EQ(event("ERROR\tstatus\t9:KD_NOT_LOGGED_IN\tdomain:\tprofile_id:0"),
              "{\"type\":\"answer\",\"ok\":false,\"cmd\":\"status\",\"error\":{\"code\":9,"
              "\"name\":\"KD_NOT_LOGGED_IN\"},\"domain\":\"\",\"profile_id\":0}");
}

TEST(wire, BodyWithImagesAndOffsets)
{
    EXPECT_EQ(event("OK\tbody\tdomain:rss\tprofile_id:1\tfeed_id:4\tuid:17\tbody:Some: text\timage:http://x/a.jpg"
                    "\toffset:12\timage:http://x/b.png\toffset:0"),
              "{\"type\":\"answer\",\"ok\":true,\"cmd\":\"body\",\"domain\":\"rss\",\"profile_id\":1,"
              "\"feed_id\":4,\"uid\":17,\"body\":\"Some: text\",\"images\":[{\"url\":\"http://x/a.jpg\","
              "\"offset\":12},{\"url\":\"http://x/b.png\",\"offset\":0}]}");
}

TEST(wire, EnclosureUrlAndItemErrors)
{
    EXPECT_EQ(event("OK\tenclosure\tdomain:podcast\tprofile_id:2\tfeed_id:7\tuid:3\turl:http://e/3.mp3"),
              "{\"type\":\"answer\",\"ok\":true,\"cmd\":\"enclosure\",\"domain\":\"podcast\",\"profile_id\":2,"
              "\"feed_id\":7,\"uid\":3,\"url\":\"http://e/3.mp3\",\"images\":[]}");
    EXPECT_EQ(event("ERROR\tbody\t12:KD_UID_NOT_FOUND\tdomain:rss\tprofile_id:1\tfeed_id:4\tuid:99"),
              "{\"type\":\"answer\",\"ok\":false,\"cmd\":\"body\",\"error\":{\"code\":12,"
              "\"name\":\"KD_UID_NOT_FOUND\"},\"domain\":\"rss\",\"profile_id\":1,\"feed_id\":4,\"uid\":99,"
              "\"images\":[]}");
}

TEST(wire, OverviewItems)
{
    EXPECT_EQ(event("overview\tdomain:rss\tprofile_id:1\tfeed_id:4\tnumber:2\tnumber_new:1\tuid:17\tstate:1"
                    "\tsubject:First\tuid:18\tstate:6\tsubject:"),
              "{\"type\":\"overview\",\"domain\":\"rss\",\"profile_id\":1,\"feed_id\":4,\"number\":2,"
              "\"number_new\":1,\"items\":[{\"uid\":17,\"state\":1,\"subject\":\"First\"},"
              "{\"uid\":18,\"state\":6,\"subject\":\"\"}]}");
}

TEST(wire, OverviewOfAFeedNeverFetched)
{
    EXPECT_EQ(event("overview\tdomain:rss\tprofile_id:1\tfeed_id:4\tnumber:0\tnumber_new:0"),
              "{\"type\":\"overview\",\"domain\":\"rss\",\"profile_id\":1,\"feed_id\":4,\"number\":0,"
              "\"number_new\":0,\"items\":[]}");
}

TEST(wire, Latin1TextIsEscapedForJsonAndNeverMarkup)
{
    std::string out;
    json_append_string(&out, std::string_view("<script>\"a\\b\"&\x01\x7f\xe9\xff", 18));
    EXPECT_EQ(out, "\"\\u003cscript\\u003e\\u0022a\\u005cb\\u0022\\u0026\\u0001\\u007f\xc3\xa9\xc3\xbf\"");
}

TEST(wire, EachFieldIsDecodedOnItsOwn)
{
    // A UTF-8 subject (dash, curly quotes, euro, emoji, CJK) beside a
    // Latin-1 one: each is shown as the feed wrote it.
    std::string json = event("overview\tdomain:rss\tprofile_id:1\tfeed_id:4\tnumber:2\tnumber_new:2"
                             "\tuid:1\tstate:0\tsubject:Caf\xc3\xa9 \xe2\x80\x94 \xe2\x80\x9c" "best\xe2\x80\x9d 3 \xe2\x82\xac"
                             " \xf0\x9f\x8c\xa7 \xe6\x97\xa5\xe6\x9c\xac"
                             "\tuid:2\tstate:0\tsubject:Caf\xe9 cr\xe8me");
    EXPECT_NE(json.find("\"subject\":\"Caf\xc3\xa9 \xe2\x80\x94 \xe2\x80\x9c" "best\xe2\x80\x9d 3 \xe2\x82\xac"
                        " \xf0\x9f\x8c\xa7 \xe6\x97\xa5\xe6\x9c\xac\""),
              std::string::npos) << json;
    EXPECT_NE(json.find("\"subject\":\"Caf\xc3\xa9 cr\xc3\xa8me\""), std::string::npos) << json;
}

TEST(wire, HostileSubjectStaysOneString)
{
    std::string json = event("overview\tdomain:rss\tprofile_id:1\tfeed_id:4\tnumber:1\tnumber_new:1\tuid:1"
                             "\tstate:0\tsubject:\"},{\"uid\":2 <img src=x onerror=alert(1)>");
    EXPECT_NE(json.find("\"subject\":\"\\u0022},{\\u0022uid\\u0022:2 \\u003cimg src=x onerror=alert(1)\\u003e\""),
              std::string::npos);
}

TEST(wire, MalformedMessagesAreRefused)
{
    std::string json;
    for (std::string_view bad : {"", "hello", "OK", "OK\tlogin", "OK\tlogin\tdomain", "OK:x\tlogin\tdomain:rss",
                                 "ERROR\tlogin\tbad:NAME\tdomain:rss\tprofile_id:1",
                                 "OK\tlogin\tdomain:rss\tprofile_id:-1",
                                 "OK\tbody\tdomain:rss\tprofile_id:1\tfeed_id:4\tuid:4294967296",
                                 "overview\tdomain:rss\tprofile_id:1\tfeed_id:4\tnumber:x",
                                 "overview\tdomain:rss\tuid:1\tstate:z"})
        EXPECT_FALSE(message_to_json(bad, &json)) << bad;
}

TEST(wire, NumbersAreDigitsWithinThirtyTwoBits)
{
    uint32_t v = 0;
    EXPECT_TRUE(parse_u32("4294967295", &v));
    EXPECT_EQ(v, 4294967295u);
    EXPECT_TRUE(parse_u32("0", &v));
    EXPECT_EQ(v, 0u);
    for (std::string_view bad : {"", "4294967296", "99999999999", "-1", "+1", "1 ", "0x1", "1.0"})
        EXPECT_FALSE(parse_u32(bad, &v)) << bad;
}

TEST(wire, RequestsFromJson)
{
    std::string req;
    ASSERT_TRUE(request_from_json(object("{\"session\":\"s\",\"cmd\":\"body\",\"feed_id\":4,\"uid\":17}"), "rss", 1,
                                  &req));
    EXPECT_EQ(req, "body\tdomain:rss\tprofile_id:1\tfeed_id:4\tuid:17");
    ASSERT_TRUE(request_from_json(object("{\"cmd\":\"enclosure\",\"uid\":3,\"feed_id\":7}"), "podcast", 2, &req));
    EXPECT_EQ(req, "enclosure\tdomain:podcast\tprofile_id:2\tfeed_id:7\tuid:3");
    ASSERT_TRUE(request_from_json(object("{\"cmd\":\"image\",\"feed_id\":0,\"uid\":4294967295}"), "rss", 0, &req));
    EXPECT_EQ(req, "image\tdomain:rss\tprofile_id:0\tfeed_id:0\tuid:4294967295");
    ASSERT_TRUE(request_from_json(object("{\"cmd\":\"accounts\"}"), "rss", 3, &req));
    EXPECT_EQ(req, "accounts\tdomain:rss\tprofile_id:3");
    ASSERT_TRUE(request_from_json(object("{\"cmd\":\"status\"}"), "rss", 3, &req));
    EXPECT_EQ(req, "status");
    EXPECT_EQ(login_request("podcast", 12), "login\tv:3\tdomain:podcast\tprofile_id:12");
}

TEST(wire, RequestsThatCannotBeMadeAreRefused)
{
    std::string req;
    for (std::string_view bad : {"{}", "{\"cmd\":\"login\"}", "{\"cmd\":\"logout\"}", "{\"cmd\":\"overview\"}",
                                 "{\"cmd\":\"body\",\"feed_id\":4}", "{\"cmd\":\"body\",\"uid\":4}",
                                 "{\"cmd\":\"body\",\"feed_id\":\"4\",\"uid\":1}", "{\"cmd\":7}",
                                 "{\"cmd\":\"body\\tdomain:podcast\",\"feed_id\":4,\"uid\":1}"})
        EXPECT_FALSE(request_from_json(object(bad), "rss", 1, &req)) << bad;
}

TEST(json, FlatObjectsOfStringsAndNumbers)
{
    auto obj = object(" { \"a\" : \"x\\\"y\\u00e9\\n\" , \"b\":12 ,\"c\":\"\"} ");
    ASSERT_EQ(obj.size(), 3u);
    EXPECT_EQ(obj[0].key, "a");
    EXPECT_EQ(obj[0].text, "x\"y\xc3\xa9\n");
    EXPECT_TRUE(obj[1].is_number);
    EXPECT_EQ(obj[1].number, 12u);
    EXPECT_EQ(json_find(obj, "c")->text, "");
    EXPECT_EQ(json_find(obj, "d"), nullptr);
    EXPECT_TRUE(object("{}").empty());
}

TEST(json, AnythingElseIsRefused)
{
    std::vector<json_member> obj;
    for (std::string_view bad : {"", "[]", "{", "{\"a\"}", "{\"a\":}", "{\"a\":1,}", "{\"a\":1}x", "{\"a\":-1}",
                                 "{\"a\":1.5}", "{\"a\":true}", "{\"a\":null}", "{\"a\":{}}", "{\"a\":[1]}",
                                 "{\"a\":4294967296}", "{\"a\":\"\\x\"}", "{\"a\":\"\\ud800\"}",
                                 "{\"a\":\"tab\there\"}", "{a:1}", "{\"a\":\"unterminated}"})
        EXPECT_FALSE(json_parse_object(bad, &obj)) << bad;
    std::string many = "{";
    for (size_t i = 0; i <= kMaxJsonMembers; i++)
        many += (i ? ",\"k" : "\"k") + std::to_string(i) + "\":1";
    EXPECT_FALSE(json_parse_object(many + "}", &obj));
}
