// Formulas over doubles: compiled once, evaluated often.
//
// This is the part of TinyExpr's interface that the module uses: te_compile, te_eval, te_free and
// plain variables, with the same language, so that callers compile and link with either. Closures,
// functions of the caller's, te_interp and te_print are not part of it. Usable from C and from C++.
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
// the locale of the process; of a lone point strtod reads nothing, so no text goes on behind it. A
// name begins with an ASCII letter
// and goes on with letters, digits and "_"; case counts, and the caller's variables come before the
// built-ins. Blanks, tabs, carriage returns and line feeds separate tokens.
//
//   constants  e pi
//   function1  abs acos asin atan ceil cos cosh exp fac floor ln log log10 sin sinh sqrt tan tanh
//   function2  atan2 ncr npr pow
//
// log is log10; ln is the natural logarithm. fac, ncr and npr truncate their arguments and count in
// unsigned 64-bit integers: infinity where those overflow and for an argument above UINT_MAX, NaN
// for a negative one, for r above n and for NaN. All else is what libm and IEEE 754 make of it: 1/0
// is infinity.

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

// A compiled formula, one block of memory that belongs to the caller until te_free. It does not
// change, so any number of threads may evaluate it at once.
typedef struct te_expr te_expr;

// Compiles a NUL-terminated text of less than INT_MAX characters, which may be freed afterwards;
// variables has count elements and may be null when count is 0. What depends on no variable is
// worked out here. Null when the text is not a list, nests parentheses and functions more than 256
// deep, or memory runs out. Unless error is null, *error is then the number of characters up to the
// end of the last token read, or 1 if that is 0; on success it is 0.
te_expr* te_compile(const char* expression, const te_variable* variables, int count, int* error);

// The formula's value with what its variables hold now; NaN for null. Allocates nothing.
double te_eval(const te_expr* formula);

// Frees a formula; null is fine.
void te_free(te_expr* formula);

#ifdef __cplusplus
}
#endif

#endif  // TORVASIN_TINYEXPR_TINYEXPR_H
