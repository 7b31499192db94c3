#include <gtest/gtest.h>

#include "core/containers/http.h"

namespace wharfy {
namespace {

HTTPError malformed(const char* reason) {
    return {HTTPError::Kind::malformed, reason};
}
const HTTPError kIncomplete{HTTPError::Kind::incompleteBody, ""};

TEST(HTTPResponseParserTest, StatusLines) {
    struct Case {
        const char* line;
        std::optional<int> status;  // absent: bad status line
    };
    const Case cases[] = {
        {"HTTP/1.1 200 OK", 200},
        {"HTTP/1.0 204 No Content", 204},
        {"HTTP/1.1 404", 404},
        {"HTTP/1.1   500   Server Error", 500},
        {"HTTP/1.1 +201 Created", 201},
        {"HTTP/2 200 OK", std::nullopt},
        {"HTTP/1.1", std::nullopt},
        {"HTTP/1.1 abc", std::nullopt},
        {"ICY 200 OK", std::nullopt},
        {"HTTP/1.1 20x OK", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& c : cases) {
        auto r = HTTPResponseParser::parse(std::string(c.line) + "\r\n\r\n");
        if (c.status) {
            ASSERT_TRUE(r.ok()) << c.line;
            EXPECT_EQ(r.value().status, *c.status) << c.line;
        } else {
            ASSERT_FALSE(r.ok()) << c.line;
            EXPECT_EQ(r.error(), malformed("bad status line")) << c.line;
        }
    }
}

TEST(HTTPResponseParserTest, NoHeaderEnd) {
    for (const char* bytes : {"", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n", "\r\n\r"}) {
        auto r = HTTPResponseParser::parse(bytes);
        ASSERT_FALSE(r.ok());
        EXPECT_EQ(r.error(), malformed("no header end"));
    }
}

TEST(HTTPResponseParserTest, HeadersAreLowerCasedTrimmedAndLastWins) {
    auto r = HTTPResponseParser::parse(
        "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nX-A:\t one \t\r\nno colon line\r\n"
        "CONTENT-TYPE :x\r\nx-a: two\r\nEmpty:\r\n\r\n");
    ASSERT_TRUE(r.ok());
    const std::map<std::string, std::string> expected{{"content-type", "application/json"},
                                                      {"content-type ", "x"},
                                                      {"x-a", "two"},
                                                      {"empty", ""}};
    EXPECT_EQ(r.value().headers, expected);
}

TEST(HTTPResponseParserTest, ContentLengthCutsOrFails) {
    struct Case {
        const char* length;
        std::optional<std::string> body;  // absent: incompleteBody
    };
    const Case cases[] = {{"5", "hello"},       {"11", "hello world"},  {"0", ""},
                          {"20", std::nullopt}, {"abc", "hello world"}, {"-1", "hello world"}};
    for (const auto& c : cases) {
        auto r = HTTPResponseParser::parse(std::string("HTTP/1.1 200 OK\r\nContent-Length: ") +
                                           c.length + "\r\n\r\nhello world");
        if (c.body) {
            ASSERT_TRUE(r.ok()) << c.length;
            EXPECT_EQ(r.value().body, *c.body) << c.length;
        } else {
            ASSERT_FALSE(r.ok()) << c.length;
            EXPECT_EQ(r.error(), kIncomplete);
        }
    }
}

TEST(HTTPResponseParserTest, ChunkedWinsOverContentLength) {
    auto r = HTTPResponseParser::parse(
        "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, Chunked\r\nContent-Length: 2\r\n\r\n"
        "4\r\nabcd\r\n0\r\n\r\n");
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(r.value().body, "abcd");
}

TEST(HTTPResponseParserTest, BodyWithoutLengthIsKeptWhole) {
    std::string body("\0binary\r\n\r\nmore", 16);
    auto r = HTTPResponseParser::parse("HTTP/1.1 200 OK\r\n\r\n" + body);
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(r.value().body, body);
}

TEST(HTTPResponseParserTest, DecodeChunked) {
    struct Case {
        std::string data;
        Result<std::string, HTTPError> expected;
    };
    const Case cases[] = {
        {"4\r\nWiki\r\n5;name=x\r\npedia\r\n0\r\n\r\n", std::string("Wikipedia")},
        {"A\r\n0123456789\r\n0\r\n", std::string("0123456789")},
        {"a \t\r\n0123456789\r\n0\r\ntrailer: x\r\n\r\ngarbage", std::string("0123456789")},
        {"3\r\nabcXY0\r\n", std::string("abc")},  // bytes after a chunk are not checked
        {"0\r\n", std::string()},
        {"zz\r\nab\r\n0\r\n\r\n", malformed("bad chunk size")},
        {"\r\n", malformed("bad chunk size")},
        {";ext\r\n", malformed("bad chunk size")},
        {"-4\r\nabcd\r\n0\r\n\r\n", malformed("bad chunk size")},
        {"ffffffffffffffffffff\r\n", malformed("bad chunk size")},
        {"7fffffffffffffff\r\nabc", kIncomplete},
        {"5\r\nabc", kIncomplete},
        {"3\r\nabc", kIncomplete},      // the two bytes after the chunk are required
        {"3\r\nabc\r\n", kIncomplete},  // no zero chunk
        {"", kIncomplete},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(HTTPResponseParser::decodeChunked(c.data), c.expected) << c.data;
    }
}

}  // namespace
}  // namespace wharfy
