#include "zephane/zephaned/Config.h"

#include <gtest/gtest.h>

#include <string>

namespace zephane {
namespace {

constexpr const char* image =
    R"({"path": "host1/data", "volumeId": 7, "secret": "s", "backend": "/srv/data.img"})";

std::string withImages(const std::string& images) {
    return R"({"images": [)" + images + "]}";
}

/// The JSON of an image in which one key has another value.
std::string withValue(const std::string& key, const std::string& value) {
    std::string text = image;
    const std::size_t at = text.find("\"" + key + "\": ") + key.size() + 4;
    return withImages(text.replace(at, text.find_first_of(",}", at) - at, value));
}

std::string errorOf(const std::string& text) {
    try {
        parseConfig(text, "FILE");
    } catch (const ConfigError& error) {
        return error.what();
    }
    return "(none)";
}

void expectError(const std::string& text, const std::string& place, const std::string& what) {
    const std::string error = errorOf(text);
    EXPECT_TRUE(error.starts_with("FILE: " + place)) << error;
    EXPECT_NE(error.find(what), std::string::npos) << error;
}

TEST(Config, HasDefaultsForAllButTheImages) {
    const Config config = parseConfig("{}", "FILE");
    EXPECT_EQ(config, Config());
    EXPECT_EQ(config.listen, (std::vector<Address>{{"127.0.0.1", 25568}}));
    EXPECT_EQ(config.runtimeDirectory, "/run/zephaned");
    EXPECT_TRUE(config.compression);
    EXPECT_EQ(config.maxSessions, 256U);
}

TEST(Config, IsWhatItsTextSays) {
    const Config config = parseConfig(R"({"listen": ["0.0.0.0:1", "[::1]:65535"], "runtimeDirectory": "/r",
        "compression": false, "maxSessions": 3, "images": [
        {"path": "a", "volumeId": 18446744073709551615, "secret": "s", "backend": "nbd+unix:///x?socket=/s"},
        {"path": "a", "volumeId": 0, "secret": "s", "backend": ["--filter=cow", "file", "/srv/x"]}]})",
                                      "FILE");
    EXPECT_EQ(config.listen, (std::vector<Address>{{"0.0.0.0", 1}, {"::1", 65535}}));
    EXPECT_EQ(config.images.at(0).name.volumeId, ~std::uint64_t{0});
    EXPECT_EQ(std::get<std::string>(config.images.at(0).backEnd), "nbd+unix:///x?socket=/s");
    EXPECT_EQ(std::get<1>(config.images.at(1).backEnd),
              (std::vector<std::string>{"--filter=cow", "file", "/srv/x"}));
    EXPECT_EQ(parseConfig(toText(config), "FILE"), config);
}

TEST(Config, SaysWhatIsNotJson) {
    expectError("", "", "this isn't JSON");
    expectError("{", "", "this isn't JSON");
    expectError("{\n\n\"images\": x}", "", "this isn't JSON, at or before line 3");
    expectError("{\"images\": 1e999}", "", "this isn't JSON");
    expectError("{\"images\": [],}", "", "this isn't JSON");
    EXPECT_EQ(errorOf(R"({"images": [{"secret": "hunter2)").find("hunter2"), std::string::npos);
    expectError("[]", "", "an object");
    expectError("null", "", "an object");
}

TEST(Config, NamesAKeyThatItDoesNotKnow) {
    expectError(R"({"Images": []})", "", R"(no key "Images" here; there are: listen, runtimeDirectory)");
    expectError(withImages(R"({"path": "a", "user": "b"})"), "images[0]: ", R"(no key "user")");
}

TEST(Config, NamesAKeyOfAnImageThatIsMissing) {
    for (const std::string key : {"path", "volumeId", "secret", "backend"}) {
        std::string text = image;
        const std::size_t at = text.find("\"" + key + "\": ");
        const std::size_t end = text.find_first_of(",}", at);
        const bool isLast = text[end] == '}';
        text.erase(isLast ? at - 2 : at, end - at + (isLast ? 2U : 1U));
        expectError(withImages(text), "images[0]: ", "the key \"" + key + "\" is missing");
    }
}

TEST(Config, RefusesValuesOfAnotherType) {
    expectError(R"({"listen": "127.0.0.1:1"})", "listen: ", "a list");
    expectError(R"({"listen": [1]})", "listen[0]: ", "a text");
    expectError(R"({"runtimeDirectory": 1})", "runtimeDirectory: ", "a text");
    expectError(R"({"compression": 1})", "compression: ", "true or false");
    expectError(R"({"maxSessions": "1"})", "maxSessions: ", "a whole number from 1 to");
    expectError(R"({"images": {}})", "images: ", "a list");
    expectError(withImages("7"), "images[0]: ", "an object");
    expectError(withValue("path", "7"), "images[0].path: ", "a text");
    expectError(withValue("volumeId", "\"7\""), "images[0].volumeId: ", "a whole number from 0 to");
    expectError(withValue("secret", "null"), "images[0].secret: ", "a text");
    expectError(withValue("backend", "7"), "images[0].backend: ", "a text");
    expectError(withValue("backend", "[7]"), "images[0].backend[0]: ", "a text");
}

TEST(Config, RefusesValuesThatCanNotBe) {
    expectError(R"({"maxSessions": 0})", "maxSessions: ", "and is 0");
    expectError(R"({"runtimeDirectory": "run"})", "runtimeDirectory: ", "begins with /");
    expectError(R"({"runtimeDirectory": "/)" + std::string(80, 'r') + "\"}",
                "runtimeDirectory: ", "80 bytes");
    expectError(R"({"listen": []})", "listen: ", "one address");
    expectError(withValue("path", "\"\""), "images[0].path: ", "1 to 1024 bytes");
    expectError(withValue("path", "\"" + std::string(1025, 'p') + "\""), "images[0].path: ", "1 to 1024");
    expectError(withValue("path", R"("a\nb")"), "images[0].path: ", "control characters");
    expectError(withValue("volumeId", "-1"), "images[0].volumeId: ", "and is -1");
    expectError(withValue("volumeId", "1.5"), "images[0].volumeId: ", "and is 1.5");
    expectError(withValue("volumeId", "18446744073709551616"),
                "images[0].volumeId: ", "18446744073709551615");
    expectError(withValue("secret", "\"\""), "images[0].secret: ", "zephaned add");
    expectError(withValue("secret", "\"" + std::string(1025, 's') + "\""), "images[0].secret: ", "1024");
}

TEST(Config, RefusesAddressesThatAreNone) {
    for (const std::string text :
         {"", "127.0.0.1", ":1", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:x", "127.0.0.1:1x",
          "localhost:1", "::1:1", "[127.0.0.1]:1", "[]:1", "[::1]", "127.0.0.1:-1", "1:2:3"}) {
        expectError(R"({"listen": [")" + text + "\"]}", "listen[0]: ", "such as 0.0.0.0:25568");
    }
}

TEST(Config, RefusesBackEndsThatAreNone) {
    for (const std::string text : {"", "data.img", "http://host/x", "s3://bucket"}) {
        expectError(withValue("backend", "\"" + text + "\""), "images[0].backend: ", "neither a path");
    }
    expectError(withValue("backend", "[]"), "images[0].backend: ", "plugin");
    expectError(withValue("backend", R"(["--filter=cow"])"), "images[0].backend: ", "plugin");
    expectError(withValue("backend", R"([""])"), "images[0].backend[0]: ", "isn't empty");
    for (const std::string option : {"-U", "--run=x", "-r", "--port=1"}) {
        expectError(withValue("backend", "[\"" + option + "\"]"), "images[0].backend[0]: ", "--filter=NAME");
    }
}

TEST(Config, RefusesADirectoryOfImages) {
    for (const std::string argument : {"dir=/srv", "directory=/srv"}) {
        const std::string list = R"({"path": "a", "volumeId": 1, "secret": "s", "backend": ["file", ")";
        expectError(withImages(list + argument + "\"]}"), "images[0].backend[1]: ", "never a directory");
    }
}

TEST(Config, RefusesImagesThatAreThereTwice) {
    const std::string other =
        R"({"path": "host1/data", "volumeId": 7, "secret": "t", "backend": "/srv/other.img"})";
    expectError(withImages(image + (", " + other)), "images[1]: ", "another image of this path and volumeId");
    const std::string sameData = R"({"path": "b", "volumeId": 7, "secret": "t", "backend": "/srv/data.img"})";
    expectError(withImages(image + (", " + sameData)), "images[1]: ", "another image of this backend");
}

TEST(Config, NeverShowsASecretInAnError) {
    const std::string secret = "do-not-show-me";
    for (const std::string& text :
         {withImages(R"({"path": 7, "volumeId": 7, "secret": ")" + secret + R"(", "backend": "/x"})"),
          withValue("secret", "[\"" + secret + "\"]"), withValue("secret", "{\"" + secret + "\": 1}")}) {
        const std::string error = errorOf(text);
        EXPECT_NE(error, "(none)");
        EXPECT_EQ(error.find(secret), std::string::npos) << error;
    }
}

} // namespace
} // namespace zephane
