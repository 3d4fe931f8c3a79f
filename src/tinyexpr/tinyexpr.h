// Formulas over doubles: compiled once, evaluated often.
//
// This is the part of TinyExpr's interface that the module uses: te_compile, te_eval, te_free and
// plain variables, with the same language, so that callers compile and link with either. It has no
// closures, no functions of the caller, no te_interp and no te_print. For C and C++.
//
// The language:
//   list   = expr {"," expr}                        its value is the last one's
//   expr   = term {("+" | "-") term}
//   term   = factor {("*" | "/" | "%") factor}      "%" is fmod
//   factor = signed {"^" signed}                    "^" is pow, from left to right
//   signed = {"+" | "-"} base                       so -2^2 is 4
//   base   = number | variable | constant ["(" ")"] | function1 signed
//          | function2 "(" expr "," expr ")" | "(" list ")"
//
// A number begins with a digit or a point and is read as strtod reads it in the C locale, whatever
// the locale of the process. A lone point is not a number, and no list contains one. A name begins
// with an ASCII letter and goes on with letters, digits and "_". Names are case-sensitive, and the
// caller's variables hide built-ins of the same name. Blanks, tabs, carriage returns and line feeds
// separate tokens.
//
//   constants  e pi
//   function1  abs acos asin atan ceil cos cosh exp fac floor ln log log10 sin sinh sqrt tan tanh
//   function2  atan2 ncr npr pow
//
// log is log10; ln is the natural logarithm. fac, ncr and npr truncate their arguments and compute
// in unsigned 64-bit integers. They return infinity where these overflow or an argument exceeds
// UINT_MAX, and NaN for a negative argument, for NaN, and for r above n. Everything else follows
// libm and IEEE 754: 1/0 is infinity.

#ifndef TORVASIN_TINYEXPR_TINYEXPR_H
#define TORVASIN_TINYEXPR_TINYEXPR_H

#ifdef __cplusplus
extern "C" {
#endif

// Types of te_variable.
enum { TE_VARIABLE = 0 };

// A name that a formula may use. A formula that names a variable of a type other than TE_VARIABLE
// does not compile.
typedef struct te_variable {
  const char* name;     // NUL-terminated; needed only while te_compile runs
  const void* address;  // of a double, which must outlive the formula
  int type;             // TE_VARIABLE
  void* context;        // not used
} te_variable;

// A compiled formula, one block of memory that the caller owns and te_free frees. It never changes,
// so any number of threads may evaluate it at once.
typedef struct te_expr te_expr;

// Compiles a NUL-terminated text of less than INT_MAX characters, which may be freed afterwards;
// variables has count elements and may be null when count is 0. Operations on constants are
// computed here, in the floating-point environment of the caller. Returns null when the text is not
// a list, nests parentheses and functions more than 256 deep, or memory runs out. Unless error is
// null, *error is then the number of characters up to the end of the last token read, but at least
// 1; on success it is 0.
te_expr* te_compile(const char* expression, const te_variable* variables, int count, int* error);

// Returns the formula's value for the current values of its variables; NaN for a null formula.
// Allocates nothing.
double te_eval(const te_expr* formula);

// Frees a formula; null is fine.
void te_free(te_expr* formula);

#ifdef __cplusplus
}
#endif

#endif  // TORVASIN_TINYEXPR_TINYEXPR_H
