// TinyExpr's language and interface, which an installed one keeps as well as ours.

#include "tinyexpr.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <string>
#include <vector>

namespace {

constexpr double infinity = HUGE_VAL;
const double nan = std::nan("");

// Compiles with "value" bound and evaluates when the text is gone. NaN and a position for an error.
void check(std::string text, double value, double expected, int position = 0) {
  SCOPED_TRACE(text);
  const te_variable variable = {"value", &value, TE_VARIABLE, nullptr};
  int error = -1;
  te_expr* formula = te_compile(text.c_str(), &variable, 1, &error);
  text.assign(text.size(), '?');
  const double result = te_eval(formula);
  te_free(formula);
  EXPECT_EQ(formula == nullptr, position != 0);
  EXPECT_EQ(error, position);
  EXPECT_TRUE(std::isnan(expected) ? std::isnan(result) : result == expected) << result;
  EXPECT_TRUE(std::isnan(expected) || std::signbit(result) == std::signbit(expected)) << result;
}

TEST(TinyExpr, Language) {
  volatile double v = 0.5;  // volatile: the C library gives the expected values, not the compiler
  const struct {
    double expected;
    std::vector<std::string> texts;
    int position = 0;
  } rows[] = {
      {v, {"value", "-+-value", " (1 ,\t2,\r\n(value)) ", "1, value", "abs -value"}},
      {4, {"-2^2", "sqrt 16", "sqrt(16)", "sqrt 4^2", "sqrt(value,16)", "3--1", "8/2", "1e0*.4e1"}},
      {64, {"2^3^2", "4*2^4", "4+10*6", "70-4-2", "0x40", "256/2/2", "(2+6)*8", "16%17^2*4"}},
      {1, {"7%3", "8%5%2", "fac value", "ncr(5,0)", "npr(0,0)", "-1^2", "value,1", "fac(1.9)"}},
      {-0.0, {"-0", "-(value-.5)", "-0*value"}},
      {nan, {"0/0", "fac -1", "fac(0/0)", "ncr(value,2)", "ncr(2,-value)", "ncr(1,0/0)"}},
      {infinity, {"1/0", "fac 21", "fac 4294967296", "ncr(4294967296,1)", "ncr(63,31)"}},
      {infinity, {"ncr(4294967295,2147483647)", "npr(30,21)", "value/(1-1)"}},
      {720, {"fac fac 3", "fac(fac(3))", "npr(6,6)", "fac 6.5", "1e3-280"}},
      {2432902008176640000, {"fac 20"}},
      {465428353255261088.0, {"ncr(62,31)"}},
      {10, {"ncr(5.5,2.5)", "ncr(5,3)", "pow((1,100),value)", "pow(1e1,2)/10", "npr(10,1)"}},
      {4294967295, {"ncr(4294967295,1)", "ncr(4294967295,4294967294)"}},
      {std::numbers::e, {"e", "e()", "e ( )/1"}},
      {std::numbers::pi, {"pi"}},
      {v * 8 / 100 + 1, {"value*8/100+1"}},
      {std::atan2(v, -3.0), {"atan2(value, -3)"}},
      {std::pow(3.0, -v), {"3^-value", "pow(3, -value)"}},
      {std::fmod(-7.3, v), {"-7.3%value"}},
      {nan, {"", "+", "$", ")"}, 1},
      {nan, {"1+", "1)", "(1", "()", "1e", "e(", "1;2"}, 2},
      {nan, {"1 2 3", "1 $ 2", "sin", "2**3", "1,,2", "e(1)"}, 3},
      {nan, {"Value+1", "1 + _a", "1.5.5 1", "pow 1", "1+pow"}, 5},
      {nan, {"2value", "value()", "sqrt()", "pow(1)", "atan2+1"}, 6},
  };
  const auto check_both = [&](std::string text, double expected, int position) {
    check(text, v, expected, position);
    const size_t at = position == 0 ? text.find("value") : text.npos;
    if (at != text.npos) check(text.replace(at, 5, "0.5"), v, expected);  // without the variable
  };
  for (const auto& row : rows) {
    for (const std::string& text : row.texts) check_both(text, row.expected, row.position);
  }
  const std::pair<const char*, double (*)(double)> functions[] = {
      {"acos ", acos}, {"asin ", asin}, {"atan ", atan},   {"ceil ", ceil}, {"cos ", cos}, {"cosh ", cosh},
      {"exp ", exp},   {"ln ", log},    {"floor ", floor}, {"log ", log10}, {"sin ", sin}, {"log10 ", log10},
      {"tan ", tan},   {"sinh ", sinh}, {"tanh ", tanh},   {"sqrt ", sqrt}};
  for (const auto& [name, function] : functions) check_both(std::string(name) + "value", function(v), 0);
}

TEST(TinyExpr, ReadsVariablesAnewAndBeforeTheBuiltIns) {
  double pi = 1;
  const te_variable variable = {"pi", &pi, TE_VARIABLE, nullptr};
  te_expr* formula = te_compile("pi + 1", &variable, 1, nullptr);
  EXPECT_EQ(te_eval(formula), 2);
  pi = 2;
  EXPECT_EQ(te_eval(formula), 3);
  te_free(formula);
}

#ifdef TORVASIN_OWN_TINYEXPR
TEST(TinyExpr, BoundsTheDepth) {
  const std::string open = "1+2*3^pow(value,";  // the most values that can wait at each depth
  std::string text = "1+2*3^value";
  for (int i = 0; i < 256; ++i) text = open + text + ")";
  check(text, 1, 7);
  check(open + text + ")", 1, nan, 257 * static_cast<int>(open.size()) - 1);
  check(std::string(2000, '-') + "1", 1, 1);
  text.clear();
  for (int i = 0; i < 2000; ++i) text += "value,";
  check(text + "1", 2, 1);
}
#endif

}  // namespace
