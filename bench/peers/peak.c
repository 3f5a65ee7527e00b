/* Runs a program and measures it: wall clock, processor time and peak memory.
 *
 * Usage: peak FILE COMMAND...
 *
 * Writes seconds, seconds of processor time and kilobytes to FILE. The memory of a child counts from its
 * fork, so a small program must start it. Ends as the program does. */
#include <stdio.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static double seconds(struct timeval time)
{
    return (double)time.tv_sec + (double)time.tv_usec / 1e6;
}

static double now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

int main(int count, char** words)
{
    struct rusage used;
    int status = 0;
    FILE* file;
    if (count < 3) {
        fprintf(stderr, "Usage: peak FILE COMMAND...\n");
        return 2;
    }
    double const start = now();
    pid_t const child = fork();
    if (child == 0) {
        execvp(words[2], words + 2);
        perror(words[2]);
        _exit(127);
    }
    if (child < 0 || wait4(child, &status, 0, &used) != child) {
        perror("peak");
        return 1;
    }
    double const end = now();
    file = fopen(words[1], "w");
    if (file == NULL ||
        fprintf(file, "%.6f %.6f %ld\n", end - start,
                seconds(used.ru_utime) + seconds(used.ru_stime), used.ru_maxrss) < 0 ||
        fclose(file) != 0) {
        perror(words[1]);
        return 1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
