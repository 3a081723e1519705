// <regex> for tests. GCC 12 with the sanitizers warns that libstdc++'s own regex automaton may
// use a value uninitialised, a false alarm inside the standard library; warnings are errors here.
#ifndef KELR_TESTS_REGEX_H
#define KELR_TESTS_REGEX_H

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <regex>
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

#endif  // KELR_TESTS_REGEX_H
