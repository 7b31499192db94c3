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

TEST(HTTPResponseParserTest, BodyFraming) {
    const std::string binary("\0binary\r\n\r\nmore", 16);
    struct Case {
        const char* what;
        std::string afterStatus;
        Result<std::string, HTTPError> body;
    };
    const Case cases[] = {
        {"length cuts", "Content-Length: 5\r\n\r\nhello world", std::string("hello")},
        {"whole length", "Content-Length: 11\r\n\r\nhello world", std::string("hello world")},
        {"zero length", "Content-Length: 0\r\n\r\nhello world", std::string()},
        {"length past the end", "Content-Length: 20\r\n\r\nhello world", kIncomplete},
        {"length not a number", "Content-Length: abc\r\n\r\nhello world",
         std::string("hello world")},
        {"negative length", "Content-Length: -1\r\n\r\nhello world", std::string("hello world")},
        {"chunked wins over length",
         "Transfer-Encoding: gzip, Chunked\r\nContent-Length: 2\r\n\r\n4\r\nabcd\r\n0\r\n\r\n",
         std::string("abcd")},
        {"no length keeps binary whole", "\r\n" + binary, binary},
    };
    for (const auto& c : cases) {
        auto r = HTTPResponseParser::parse("HTTP/1.1 200 OK\r\n" + c.afterStatus);
        const Result<std::string, HTTPError> body =
            r.ok() ? Result<std::string, HTTPError>(r.value().body) : r.error();
        EXPECT_EQ(body, c.body) << c.what;
    }
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
