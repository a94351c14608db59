// Driving the 600 s log restraint from tests.
#ifndef SABLE_TESTS_RESTRAINT_H
#define SABLE_TESTS_RESTRAINT_H

#include <initializer_list>

namespace sable_test {

// Lets every restrained call site of the given source files (lines 1 to `maxLine`) print again
// on the calling thread, as if its 600 s had passed: each site's last print is moved 600 s into
// the past through the restraint's own clock argument.
void ForgetRestrainedSites(std::initializer_list<const char*> files, int maxLine = 1500);

}  // namespace sable_test

#endif
