// The tool's result data: JSON text that scripts on a test floor can parse.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "cli/Cli.h"
#include "cli/Output.h"

namespace {

using quarn::cli::Value;

TEST(CliJson, ObjectsKeepOrderAndReplaceKeys) {
    Value v = Value::object();
    v.set("b", 1).set("a", "x").set("b", 2);
    EXPECT_EQ(v.toJson(), "{\"b\":2,\"a\":\"x\"}");
    ASSERT_NE(v.get("a"), nullptr);
    EXPECT_EQ(v.get("a")->str(), "x");
    EXPECT_EQ(v.get("missing"), nullptr);
}

TEST(CliJson, StringsAreEscapedSoAnyDeviceTextStaysValid) {
    // Detail texts carry tabs and newlines; device strings may carry anything.
    Value v = Value::array();
    v.push("Date: 29\tDate is out of range!\n").push("quote \" back \\ bell \x07 del \x7f");
    EXPECT_EQ(v.toJson(),
              "[\"Date: 29\\tDate is out of range!\\n\",\"quote \\\" back \\\\ bell \\u0007 del \\u007f\"]");
    Value bytes = Value::array();
    bytes.push(std::string("\xe9t\xe9", 3));  // not UTF-8-checked: passed through
    EXPECT_EQ(bytes.toJson(), "[\"\xe9t\xe9\"]");
}

TEST(CliJson, NumbersBooleansNullAndNesting) {
    Value v = Value::object();
    v.set("n", -5).set("big", static_cast<long long>(1) << 40).set("u", 4000000000u);
    v.set("d", 0.5).set("inf", std::numeric_limits<double>::infinity()).set("t", true);
    v.set("none", Value()).set("list", Value::array().push(Value::object().set("k", false)));
    EXPECT_EQ(v.toJson(),
              "{\"n\":-5,\"big\":1099511627776,\"u\":4000000000,\"d\":0.5,\"inf\":null,\"t\":true,"
              "\"none\":null,\"list\":[{\"k\":false}]}");
}

TEST(CliArguments, IntegersAreCheckedAgainstTheirRange) {
    long long v = 0;
    EXPECT_TRUE(quarn::cli::parseInt("0x40", 0, 255, &v));
    EXPECT_EQ(v, 64);
    EXPECT_TRUE(quarn::cli::parseInt("-3", -5, 5, &v));
    EXPECT_FALSE(quarn::cli::parseInt("256", 0, 255, &v));
    EXPECT_FALSE(quarn::cli::parseInt("12abc", 0, 1000, &v));
    EXPECT_FALSE(quarn::cli::parseInt("", 0, 1, &v));
    EXPECT_FALSE(quarn::cli::parseInt("99999999999999999999999", 0, 1LL << 62, &v));
}

}  // namespace
