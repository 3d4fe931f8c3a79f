// TinyExpr's language and interface, as both our implementation and an installed one provide them.

#include "tinyexpr.h"

#include <gtest/gtest.h>

#include <charconv>
#include <clocale>
#include <cmath>
#include <vector>

namespace {

const double infinity = HUGE_VAL, nan = std::nan("");

// Compiles with "value" bound, and evaluates after the text is gone. Then does the same with the
// number in place of the variable. An error is expected as NaN and a position.
void check(std::string text, double value, double expected, int position = 0) {
  SCOPED_TRACE(text);
  const te_variable variable = {"value", &value, TE_VARIABLE, nullptr};
  int error = -1;
  te_expr* formula = te_compile(text.substr().c_str(), &variable, 1, &error);
  const double result = te_eval(formula);
  te_free(formula);
  EXPECT_EQ(formula == nullptr, position != 0);
  EXPECT_EQ(error, position);
  const bool same = result == expected && std::signbit(result) == std::signbit(expected);
  EXPECT_TRUE(same || (std::isnan(expected) && std::isnan(result))) << result;
  const size_t at = position == 0 ? text.find("value") : text.npos;
  char number[32] = {};
  std::to_chars(number, std::end(number), value);
  if (at != text.npos) check(text.replace(at, 5, number), value, expected);
}

// ctest runs this in a locale whose numbers have a decimal comma, if the build could make one.
TEST(TinyExpr, Language) {
  setlocale(LC_ALL, "");
  const char* comma = getenv("TORVASIN_COMMA_LOCALE");
  EXPECT_TRUE(comma == nullptr || *localeconv()->decimal_point == ',') << "no such locale: " << comma;
  volatile double half = 0.5;  // volatile, so that the C library computes the expected values, not the compiler
  const double v = half;
  const std::tuple<double, int, std::vector<std::string>> rows[] = {
      {v, 0, {"value", "-+-value", " (1 ,\t2,\r\n(value)) ", "1, value", "abs -value"}},
      {4, 0, {"-2^2", "sqrt 4^2", "sqrt(value,16)", "3--1", "1e0*.4e1"}},
      {64, 0, {"2^3^2", "4*2^4", "97-31-2", "0x40", "256/2/2", "(2+6)*8", "16%17^2*4"}},
      {1, 0, {"8%5%2", "fac value", "ncr(5,0)", "npr(0,0)", "-1^2", "fac(1.9)"}},
      {-0.0, 0, {"-0", "-(value-.5)"}},
      {nan, 0, {"0/0", "fac -1", "fac(0/0)", "ncr(value,2)", "ncr(2,-value)", "ncr(1,0/0)"}},
      {infinity, 0, {"1/0", "fac 21", "fac 4294967296", "ncr(4294967296,1)", "ncr(63,31)", "npr(30,21)"}},
      {2432902008176640000, 0, {"fac 20"}},
      {465428353255261088.0, 0, {"ncr(62,31)"}},
      {10, 0, {"ncr(5.5,2.5)", "ncr(5,3)", "pow((1,100),value)", "npr(10,1)"}},
      {4294967295, 0, {"ncr(4294967295,1)", "ncr(4294967295,4294967294)"}},
      {M_E, 0, {"e", "e ( )/1"}},
      {M_PI, 0, {"pi"}},
      {std::pow(3.0, -v), 0, {"3^-value", "pow(3, -value)"}},
      {nan, 1, {"", "+", "$", ")"}},
      {std::atan2(v, 3), 0, {"atan2(value,3)"}},
      {-8, 0, {"-2^3"}},
      {nan, 2, {"1+", "1)", "(1", "()", "1e", "e(", "sq 4"}},
      {nan, 3, {"1 2 3", "2**3", "1,,2", "e(1)"}},
      {nan, 5, {"Value+1", "1 + _a", "1.5.5 1", "1+pow"}},
      {nan, 6, {"2value", "values", "sqrt()", "pow(1)", "1+pow(."}},
      {nan, 7, {"e * 0.5.-pi + value"}},
  };
  for (const auto& [expected, position, texts] : rows) {
    for (const std::string& text : texts) check(text, v, expected, position);
  }
  const std::pair<const char*, double (*)(double)> functions[] = {
      {"acos ", acos}, {"asin ", asin}, {"atan ", atan},   {"ceil ", ceil}, {"cos ", cos}, {"cosh ", cosh},
      {"exp ", exp},   {"ln ", log},    {"floor ", floor}, {"log ", log10}, {"sin ", sin}, {"log10 ", log10},
      {"tan ", tan},   {"sinh ", sinh}, {"tanh ", tanh},   {"sqrt ", sqrt}};
  for (const auto& [name, function] : functions) check(std::string(name) + "value", v, function(v));
  EXPECT_LT(clock(), 5 * CLOCKS_PER_SEC) << "processor time of all formulas, which take microseconds each";
}

#ifdef TORVASIN_OWN_TINYEXPR
TEST(TinyExpr, BoundsTheDepth) {
  const std::string open = "1+2*3^pow(value,";  // as many pending values as each depth can have
  std::string text = "1+2*3^value";
  for (int i = 0; i < 256; ++i) text = open + text + ")";
  check(text, 1, 7);
  check(open + text + ")", 1, nan, 257 * static_cast<int>(open.size()) - 1);
  check(std::string(2000, '-') + "1", 1, 1);
}
#endif

}  // namespace
