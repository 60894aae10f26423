// Assertions on invariants, in every build.
//
// An invariant that does not hold means that the program is wrong: it ends at once, with the
// place, the expression and the reason on standard error, rather than work on with what is
// corrupt. What a caller or a peer can cause is no invariant but an error to be handled.
#ifndef KAVRI_BASE_ASSERT_H
#define KAVRI_BASE_ASSERT_H

namespace kavri::base {

// Writes "FILE:LINE: assertion EXPRESSION failed: REASON" and aborts. Allocates nothing.
[[noreturn, gnu::cold]] void failAssertion(const char* file, int line, const char* expression,
                                           const char* reason);

}  // namespace kavri::base

// `reason` is the invariant in words, so that the report can be understood without the code.
#define KAVRI_ASSERT(expression, reason)                \
    (__builtin_expect(static_cast<bool>(expression), 1) \
         ? static_cast<void>(0)                         \
         : ::kavri::base::failAssertion(__FILE__, __LINE__, #expression, reason))

#endif
