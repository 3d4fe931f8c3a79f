// A formula becomes postfix instructions in one block. The parser reads one token ahead and emits
// each instruction after its operands. An instruction whose operands are all constants is evaluated
// at once, by te_eval like any other, and replaced by its result.

#include "tinyexpr.h"

#include <limits.h>
#include <locale.h>
#include <math.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <limits>
#include <numbers>
#include <string_view>

namespace {

enum class opcode : uint8_t {
  done,
  constant,
  variable,
  negate,
  add,
  subtract,
  multiply,
  divide,
  call_one,
  call_two,
};

using function_one = double (*)(double);
using function_two = double (*)(double, double);

union operand_of {
  double constant;
  const double* variable;
  function_one one;
  function_two two;
};

}  // namespace

// One instruction. A formula is an array of them that ends with opcode::done.
struct te_expr {
  opcode op;
  operand_of with;
};

namespace {

// Parentheses and functions that may be open at once. This bounds the parser's recursion.
constexpr size_t max_depth = 256;

// Values that an evaluation may hold at once. At each depth these are up to three left operands,
// one for each precedence, and the first argument of a two-argument function. The innermost depth
// holds the last value instead of such an argument.
constexpr size_t max_values = 4 * (max_depth + 1);

constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double largest_unsigned = UINT_MAX;

constexpr te_expr plain(opcode op) {
  return {op, {.constant = 0}};
}
constexpr te_expr constant(double value) {
  return {opcode::constant, {.constant = value}};
}
constexpr te_expr call(function_one one) {
  return {opcode::call_one, {.one = one}};
}
constexpr te_expr call(function_two two) {
  return {opcode::call_two, {.two = two}};
}

// n!, which overflows for n above 20, so the loop is always short.
double factorial(double n) {
  if (!(n >= 0)) return not_a_number;
  if (n > largest_unsigned) return infinity;
  const uint64_t last = static_cast<uint64_t>(n);
  uint64_t product = 1;
  for (uint64_t i = 2; i <= last; ++i) {
    if (__builtin_mul_overflow(product, i, &product)) return infinity;
  }
  return static_cast<double>(product);
}

// n over r. The result of each step is itself a binomial coefficient, so no division leaves a
// remainder. Because n is at least twice the number of steps, the product overflows within about
// thirty steps unless the loop ends before.
double combinations(double n, double r) {
  if (!(r >= 0) || !(n >= r)) return not_a_number;
  if (n > largest_unsigned) return infinity;
  const uint64_t all = static_cast<uint64_t>(n);
  const uint64_t chosen = static_cast<uint64_t>(r);
  const uint64_t steps = std::min(chosen, all - chosen);
  uint64_t result = 1;
  for (uint64_t i = 1; i <= steps; ++i) {
    if (__builtin_mul_overflow(result, all - steps + i, &result)) return infinity;
    result /= i;
  }
  return static_cast<double>(result);
}

double permutations(double n, double r) {
  return combinations(n, r) * factorial(r);
}

struct builtin {
  std::string_view name;
  te_expr instruction;
};

// The instruction behind each name, sorted by name.
constexpr builtin builtins[] = {
    {"abs", call(fabs)},         {"acos", call(acos)},        {"asin", call(asin)},
    {"atan", call(atan)},        {"atan2", call(atan2)},      {"ceil", call(ceil)},
    {"cos", call(cos)},          {"cosh", call(cosh)},        {"e", constant(std::numbers::e)},
    {"exp", call(exp)},          {"fac", call(factorial)},    {"floor", call(floor)},
    {"ln", call(log)},           {"log", call(log10)},        {"log10", call(log10)},
    {"ncr", call(combinations)}, {"npr", call(permutations)}, {"pi", constant(std::numbers::pi)},
    {"pow", call(pow)},          {"sin", call(sin)},          {"sinh", call(sinh)},
    {"sqrt", call(sqrt)},        {"tan", call(tan)},          {"tanh", call(tanh)},
};
static_assert(std::ranges::is_sorted(builtins, {}, &builtin::name));

// The tokens that the parser distinguishes; the value of a symbol is its character.
enum class token : char {
  end = '\0',
  open = '(',
  close = ')',
  comma = ',',
  plus = '+',
  minus = '-',
  times = '*',
  over = '/',
  remainder = '%',
  power = '^',
  value = 'v',        // a number or a variable
  named_value = 'n',  // a built-in constant
  function = 'f',     // a built-in function
  bad = '?',          // not in the language
};

struct infix_operator {
  token symbol;
  int precedence;
  te_expr instruction;
};

// All of them are left-associative.
constexpr infix_operator infix_operators[] = {
    {token::plus, 1, plain(opcode::add)},       {token::minus, 1, plain(opcode::subtract)},
    {token::times, 2, plain(opcode::multiply)}, {token::over, 2, plain(opcode::divide)},
    {token::remainder, 2, call(fmod)},          {token::power, 3, call(pow)},
};
constexpr int lowest_precedence = 1;

struct compiler {
  const char* start;             // the text
  const char* next;              // the text after the last token read
  locale_t locale;               // for reading numbers
  const te_variable* variables;  // `count` of them
  int count;
  token ahead;          // the last token read, not yet used
  te_expr instruction;  // what that token stands for: a value, or the call of a function
  te_expr* code;        // room for one instruction per character of the text, and a `done`
  size_t size;          // instructions in code
  size_t depth;         // parentheses and functions open
};

// ASCII only, so that the locale does not change the language.
constexpr bool is_digit(char c) {
  return c >= '0' && c <= '9';
}
constexpr bool is_letter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
constexpr bool is_in_name(char c) {
  return is_letter(c) || is_digit(c) || c == '_';
}
constexpr bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

token read_number(compiler& c) {
  char* behind = nullptr;
  c.instruction = constant(strtod_l(c.next, &behind, c.locale));
  c.next = behind;
  return token::value;
}

token read_variable(compiler& c, const te_variable& variable) {
  if (variable.type != TE_VARIABLE) return token::bad;
  c.instruction = {opcode::variable, {.variable = static_cast<const double*>(variable.address)}};
  return token::value;
}

token read_name(compiler& c) {
  const char* first = c.next;
  while (is_in_name(*c.next)) ++c.next;
  const std::string_view name(first, static_cast<size_t>(c.next - first));
  for (int i = 0; i < c.count; ++i) {
    if (name == c.variables[i].name) return read_variable(c, c.variables[i]);
  }
  const builtin* found = std::ranges::lower_bound(builtins, name, {}, &builtin::name);
  if (found == std::end(builtins) || found->name != name) return token::bad;
  c.instruction = found->instruction;
  return c.instruction.op == opcode::constant ? token::named_value : token::function;
}

token read_symbol(compiler& c) {
  constexpr std::string_view symbols = "+-*/%^(),";
  const char symbol = *c.next++;
  return symbols.find(symbol) == symbols.npos ? token::bad : token{symbol};
}

void advance(compiler& c) {
  while (is_blank(*c.next)) ++c.next;
  if (*c.next == '\0') {
    c.ahead = token::end;
  } else if (is_digit(*c.next) || *c.next == '.') {
    c.ahead = read_number(c);
  } else if (is_letter(*c.next)) {
    c.ahead = read_name(c);
  } else {
    c.ahead = read_symbol(c);
  }
}

bool accept(compiler& c, token expected) {
  if (c.ahead != expected) return false;
  advance(c);
  return true;
}

constexpr size_t operands_of(opcode op) {
  switch (op) {
    case opcode::done:
    case opcode::constant:
    case opcode::variable:
      return 0;
    case opcode::negate:
    case opcode::call_one:
      return 1;
    case opcode::add:
    case opcode::subtract:
    case opcode::multiply:
    case opcode::divide:
    case opcode::call_two:
      return 2;
  }
  return 0;
}

// Appends an instruction, or its result when its operands are constants. In postfix order, a
// constant that comes last is the whole last operand, and one right before it the whole operand
// before.
void emit(compiler& c, const te_expr& instruction) {
  const size_t operands = operands_of(instruction.op);
  te_expr* first = c.code + c.size - operands;
  te_expr* last = c.code + c.size++;
  *last = instruction;
  const auto is_constant = [](const te_expr& i) { return i.op == opcode::constant; };
  if (operands == 0 || !std::all_of(first, last, is_constant)) return;
  last[1] = plain(opcode::done);
  *first = constant(te_eval(first));
  c.size -= operands;
}

// The parser: each function reads what its name says, emits the instructions and leaves the next
// token in `ahead`. It returns false at the first token that does not fit.
bool list(compiler& c);
bool operand(compiler& c);
bool expression(compiler& c, int lowest);

bool function_call(compiler& c) {
  const te_expr function = c.instruction;
  advance(c);
  const bool arguments = function.op == opcode::call_one
                             ? operand(c)
                             : accept(c, token::open) && expression(c, lowest_precedence) &&
                                   accept(c, token::comma) && expression(c, lowest_precedence) &&
                                   accept(c, token::close);
  if (arguments) emit(c, function);
  return arguments;
}

bool base(compiler& c) {
  switch (c.ahead) {
    case token::value:
      emit(c, c.instruction);
      advance(c);
      return true;
    case token::named_value:
      emit(c, c.instruction);
      advance(c);
      return !accept(c, token::open) || accept(c, token::close);
    case token::function:
      return function_call(c);
    case token::open:
      advance(c);
      return list(c) && accept(c, token::close);
    default:
      return false;
  }
}

// A base with its signs. Every recursion of the parser passes through here.
bool operand(compiler& c) {
  if (c.depth > max_depth) return false;
  ++c.depth;
  bool negative = false;
  for (; c.ahead == token::plus || c.ahead == token::minus; advance(c)) {
    negative ^= c.ahead == token::minus;
  }
  if (!base(c)) return false;
  if (negative) emit(c, plain(opcode::negate));
  --c.depth;
  return true;
}

const infix_operator* infix_ahead(const compiler& c) {
  const infix_operator* found =
      std::ranges::find(infix_operators, c.ahead, &infix_operator::symbol);
  return found == std::end(infix_operators) ? nullptr : found;
}

// Operands joined by operators of at least the precedence `lowest`.
bool expression(compiler& c, int lowest) {
  if (!operand(c)) return false;
  for (const infix_operator* infix = infix_ahead(c);
       infix != nullptr && infix->precedence >= lowest; infix = infix_ahead(c)) {
    advance(c);
    if (!expression(c, infix->precedence + 1)) return false;
    emit(c, infix->instruction);
  }
  return true;
}

// Only the last expression counts and none has side effects, so the code of the others is dropped.
bool list(compiler& c) {
  const size_t before = c.size;
  if (!expression(c, lowest_precedence)) return false;
  while (accept(c, token::comma)) {
    c.size = before;
    if (!expression(c, lowest_precedence)) return false;
  }
  return true;
}

// Ends the code and frees the room that it does not need.
te_expr* finish(const compiler& c) {
  c.code[c.size] = plain(opcode::done);
  void* smaller = realloc(c.code, (c.size + 1) * sizeof(te_expr));
  return smaller == nullptr ? c.code : static_cast<te_expr*>(smaller);
}

}  // namespace

te_expr* te_compile(const char* expression, const te_variable* variables, int count, int* error) {
  compiler c = {};
  c.locale = newlocale(LC_ALL_MASK, "C", locale_t{});
  c.start = expression;
  c.next = expression;
  c.variables = variables;
  c.count = count;
  // Each instruction comes from a token, which has at least one character. The exception is a lone
  // point: it is read as an empty number again and again, but the parse fails at the second one.
  // calloc, because it refuses a product that overflows.
  c.code = static_cast<te_expr*>(calloc(strlen(expression) + 1, sizeof(te_expr)));
  bool compiled = false;
  if (c.code != nullptr && c.locale != locale_t{}) {
    advance(c);
    compiled = list(c) && c.ahead == token::end;
  }
  if (c.locale != locale_t{}) freelocale(c.locale);
  if (error != nullptr) *error = compiled ? 0 : std::max(1, static_cast<int>(c.next - c.start));
  if (compiled) return finish(c);
  free(c.code);
  return nullptr;
}

double te_eval(const te_expr* formula) {
  if (formula == nullptr) return not_a_number;
  double waiting[max_values];  // below the topmost value, which stays in a register
  double* next = waiting;
  double top = 0;
  // The analyzer does not see that the compiler emits operands before the instruction that uses
  // them.
  // NOLINTBEGIN(clang-analyzer-core.UndefinedBinaryOperatorResult,clang-analyzer-core.CallAndMessage)
  for (const te_expr* i = formula;; ++i) {
    switch (i->op) {
      case opcode::done:
        return top;
      case opcode::constant:
        *next++ = top;
        top = i->with.constant;
        break;
      case opcode::variable:
        *next++ = top;
        top = *i->with.variable;
        break;
      case opcode::negate:
        top = -top;
        break;
      case opcode::add:
        top = *--next + top;
        break;
      case opcode::subtract:
        top = *--next - top;
        break;
      case opcode::multiply:
        top = *--next * top;
        break;
      case opcode::divide:
        top = *--next / top;
        break;
      case opcode::call_one:
        top = i->with.one(top);
        break;
      case opcode::call_two:
        top = i->with.two(*--next, top);
        break;
    }
  }
  // NOLINTEND(clang-analyzer-core.UndefinedBinaryOperatorResult,clang-analyzer-core.CallAndMessage)
}

void te_free(te_expr* formula) {
  free(formula);
}
