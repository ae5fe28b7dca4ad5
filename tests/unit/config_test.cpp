// Lines of a configuration file.
#include <gtest/gtest.h>

#include <map>

#include "unit/harness.h"

TEST(Configuration, EveryLine)
{
    struct Row {
        std::string text;
        char separator;
        const char* key;
        std::string value;  // "-": absent, and the line logged as invalid
    };
    static const Row rows[] = {
        {"key=value", '=', "key", "value"},
        {"  key\t=\tvalue  ", '=', "key", "value"},
        {"\tkey = a b  c \t", '=', "key", "a b  c"},
        {"a = b:c=d", '=', "a", "b:c=d"},
        {"a b = c", '=', "a", "c"},
        {"a:b = c", '=', "a", "c"},
        {"a = x#y", '=', "a", "x"},
        {"#a=1\n    \n\na=1\na=2", '=', "a", "2"},
        {"a=5\r\n", '=', "a", "5\r"},
        {"  =x", '=', "", "x"},
        {"port: 5", ':', "port", "5"},
        {"serial = X", ':', "serial", "-"},
        {"\t", '=', "", "-"},
        {"=value", '=', "", "-"},
        {"key=  \t", '=', "key", "-"},
        {"key = # note", '=', "key", "-"},
    };
    LogCapture log;
    for (const Row& row : rows) {
        const ConfigFile config = config_of(row.text, row.separator);
        EXPECT_EQ(row.value, config.getStringValue(row.key, "-")) << row.text;
        EXPECT_EQ(row.value != "-", config.keyExists(row.key)) << row.text;
        const std::string logged = " [INFO] KeyValueParser::parseLine ignoring invalid line: " +
                                   row.text.substr(0, row.text.find('#')) + "\n";
        EXPECT_EQ(row.value == "-" ? logged : "", log.take());
    }
    const ConfigFile config = config_of("a=5x\nb=abc\nc=-7\r\nd=0x10\ne=2.5e1");
    for (const auto& [key, value] :
         std::map<std::string, int>{{"a", 5}, {"b", 0}, {"c", -7}, {"d", 0}, {"z", 3}})
        EXPECT_EQ(value, config.getIntValue(key, 3)) << key;
    EXPECT_EQ(25.0, config.getFloatValue("e", 0));
    EXPECT_EQ(1.5, config.getFloatValue("z", 1.5));
    struct Line {
        std::string text;
        bool valid;
        const char* left;
    };
    for (Line line : {Line{"\t a= ", false, "a= "}, Line{" =1", false, "=1"},
                      Line{"a:1", false, "a:1"}, Line{"a=\t", true, "a=\t"}}) {
        EXPECT_EQ(line.valid, config.validLine(line.text)) << line.left;
        EXPECT_EQ(line.left, line.text);
    }
}
