/*
 * Commands compared in one run, one process each time: spawn_bench N COMMAND... runs
 * the commands in turn, N rounds, and prints per command the median and mean wall time
 * and the median CPU time (user and system) of its process, as JSON lines. Taking turns
 * spreads the machine's slow and fast moments over all of them, so their ratios hold
 * where their absolute times do not.
 *
 * A COMMAND is one argument: a program path and its arguments separated by spaces (no
 * shell). "%d" in an argument becomes the round number, for names that must differ.
 * Its output goes to /dev/null; a command that fails is reported on stderr.
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>

extern char **environ;

enum { kMaxCommands = 16, kMaxArgs = 32 };

static double now_us(void)
{
	struct timespec t;
	clock_gettime(CLOCK_MONOTONIC, &t);
	return t.tv_sec * 1e6 + t.tv_nsec / 1e3;
}

static int by_value(const void *a, const void *b)
{
	const double x = *(const double *)a, y = *(const double *)b;
	return x < y ? -1 : x > y;
}

static double median(double *v, int n)
{
	qsort(v, (size_t)n, sizeof(*v), by_value);
	return v[n / 2];
}

int main(int argc, char **argv)
{
	const int rounds = argc > 2 ? atoi(argv[1]) : 0;
	const int count = argc - 2;
	if (rounds < 1 || count > kMaxCommands) {
		fprintf(stderr, "usage: spawn_bench ROUNDS COMMAND... (at most %d commands)\n", kMaxCommands);
		return 2;
	}
	char *args[kMaxCommands][kMaxArgs + 1];
	double *wall[kMaxCommands], *cpu[kMaxCommands];
	for (int c = 0; c < count; c++) {
		int n = 0;
		for (char *p = strtok(strdup(argv[2 + c]), " "); p != NULL && n < kMaxArgs; p = strtok(NULL, " "))
			args[c][n++] = p;
		args[c][n] = NULL;
		wall[c] = calloc((size_t)rounds, sizeof(double));
		cpu[c] = calloc((size_t)rounds, sizeof(double));
		if (n == 0 || wall[c] == NULL || cpu[c] == NULL)
			return 2;
	}
	posix_spawn_file_actions_t quiet;
	posix_spawn_file_actions_init(&quiet);
	posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0);
	for (int r = 0; r < rounds; r++) {
		for (int c = 0; c < count; c++) {
			char *argv_r[kMaxArgs + 1], text[kMaxArgs][256];
			int i;
			for (i = 0; args[c][i] != NULL; i++) {
				// Only "%d" is replaced: the argument is never used as a format.
				const char *at = strstr(args[c][i], "%d");
				argv_r[i] = args[c][i];
				if (at != NULL) {
					snprintf(text[i], sizeof(text[i]), "%.*s%d%s", (int)(at - args[c][i]),
					    args[c][i], r, at + 2);
					argv_r[i] = text[i];
				}
			}
			argv_r[i] = NULL;
			pid_t pid;
			int status;
			struct rusage use;
			const double start = now_us();
			if (posix_spawn(&pid, argv_r[0], &quiet, NULL, argv_r, environ) != 0) {
				perror(argv_r[0]);
				return 1;
			}
			if (wait4(pid, &status, 0, &use) != pid)
				return 1;
			wall[c][r] = now_us() - start;
			cpu[c][r] = use.ru_utime.tv_sec * 1e6 + use.ru_utime.tv_usec + use.ru_stime.tv_sec * 1e6 +
			    use.ru_stime.tv_usec;
			if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
				fprintf(stderr, "failed: %s (round %d)\n", argv[2 + c], r);
		}
	}
	for (int c = 0; c < count; c++) {
		double sum = 0;
		for (int r = 0; r < rounds; r++)
			sum += wall[c][r];
		printf("{\"command\": \"%s\", \"median_us\": %.0f, \"mean_us\": %.0f, \"cpu_median_us\": %.0f}\n",
		    argv[2 + c], median(wall[c], rounds), sum / rounds, median(cpu[c], rounds));
	}
	return 0;
}
