// Lines of a configuration file.
#include <gtest/gtest.h>

#include <map>

#include "unit/harness.h"

TEST(Configuration, EveryLine)
{
    struct Row {
        const char* what;
        std::string text;
        char separator;
        const char* key;
        std::string value;  // "-": absent, and the line logged as invalid
    };
    static const Row rows[] = {
        {"plain", "key=value", '=', "key", "value"},
        {"spaces and tabs around both", "  key\t=\tvalue  ", '=', "key", "value"},
        {"spaces inside the value", "\tkey = a b  c \t", '=', "key", "a b  c"},
        {"separators inside the value", "a = b:c=d", '=', "a", "b:c=d"},
        {"'=' at the value's end", "a = b:=", '=', "a", "b:="},
        {"':' at the value's end", "a = b=:", '=', "a", "b=:"},
        {"two words before the separator", "a b = c", '=', "a", "c"},
        {"the other separator ends the key", "a:b = c", '=', "a", "c"},
        {"comment after the value", "a = x#y", '=', "a", "x"},
        {"the last line wins", "#a=1\n    \n\na=1\na=2", '=', "a", "2"},
        {"carriage return", "a=5\r\n", '=', "a", "5\r"},
        {"empty key", "  =x", '=', "", "x"},
        {"serial number file", "port: 5", ':', "port", "5"},
        {"serial number file without ':'", "serial = X", ':', "serial", "-"},
        {"only a tab", "\t", '=', "", "-"},
        {"separator first", "=value", '=', "", "-"},
        {"only spaces for a value", "key=  \t", '=', "key", "-"},
        {"only a comment for a value", "key = # note", '=', "key", "-"},
    };
    LogCapture log;
    for (const Row& row : rows) {
        const ConfigFile config = config_of(row.text, row.separator);
        EXPECT_EQ(row.value, config.getStringValue(row.key, "-")) << row.what;
        EXPECT_EQ(row.value != "-", config.keyExists(row.key)) << row.what;
        const std::string logged = " [INFO] KeyValueParser::parseLine ignoring invalid line: " +
                                   row.text.substr(0, row.text.find('#')) + "\n";
        EXPECT_EQ(row.value == "-" ? logged : "", log.take()) << row.what;
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
