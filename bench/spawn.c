/* spawn: run one command and report what it cost, as GNU time does but with
 * finer clocks.
 *
 * The peak RSS of a process (ru_maxrss) starts from the high-water mark of
 * the memory it had before exec: a child forked (or vforked) by the Python
 * driver would report the driver's ~25 MiB even for /bin/true. Started from
 * this small program, the figure is the command's own, the same one GNU
 * time prints as %M. Wall time is taken around fork/exec/wait, CPU time is
 * user + system from the same wait4 rusage.
 *
 * usage: spawn REPORT_FD COMMAND [ARG...]
 * Writes "wall_ns user_us system_us maxrss_kib exit_status" to REPORT_FD
 * (exit_status is 128+signal for a killed command) and exits 0, or 127 when
 * the command could not be started. stdin/stdout/stderr are the command's.
 */
#define _POSIX_C_SOURCE 200809L
#define _DEFAULT_SOURCE /* wait4 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static long long nanoseconds(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (long long)now.tv_sec * 1000000000LL + now.tv_nsec;
}

int main(int argc, char **argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: spawn REPORT_FD COMMAND [ARG...]\n");
        return 2;
    }
    FILE *report = fdopen(atoi(argv[1]), "w");
    if (!report) {
        perror("spawn: report fd");
        return 2;
    }
    const long long started = nanoseconds();
    const pid_t child = fork();
    if (child < 0) {
        perror("spawn: fork");
        return 127;
    }
    if (child == 0) {
        fclose(report);
        execvp(argv[2], argv + 2);
        fprintf(stderr, "spawn: %s: %s\n", argv[2], strerror(errno));
        _exit(127);
    }
    int status = 0;
    struct rusage usage;
    while (wait4(child, &status, 0, &usage) < 0) {
        if (errno != EINTR) {
            perror("spawn: wait4");
            return 127;
        }
    }
    const long long wall = nanoseconds() - started;
    const int exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    fprintf(report, "%lld %lld %lld %ld %d\n", wall,
            (long long)usage.ru_utime.tv_sec * 1000000 + usage.ru_utime.tv_usec,
            (long long)usage.ru_stime.tv_sec * 1000000 + usage.ru_stime.tv_usec, usage.ru_maxrss,
            exit_status);
    fclose(report);
    return 0;
}
