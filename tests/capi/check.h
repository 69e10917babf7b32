/*
 * The C test programs' one assertion: report the failed condition and end the program
 * with status 1. Define CHECK_PROGRAM to the program's name before including.
 */
#ifndef TESTS_CAPI_CHECK_H
#define TESTS_CAPI_CHECK_H

#include <stdio.h>

#define CHECK(cond)                                                                \
	do {                                                                       \
		if (!(cond)) {                                                     \
			fprintf(stderr, "%s: failed: %s\n", CHECK_PROGRAM, #cond); \
			return 1;                                                  \
		}                                                                  \
	} while (0)

#endif
