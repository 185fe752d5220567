/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The board's debug log: libplatform-log.so.1.
 *
 * Levels grow with detail: 1 an error, 2 a failure of the core, 4 ordinary
 * progress, 11 lines of every iteration of a loop. The library shows
 * a record when its level is not above the DLOG_LEVEL of the environment, 2
 * when that is not set; it reads that once.
 *
 * A record is one line: line ends at the end of a text are dropped, those
 * within become blanks, and a text of more than about a kilobyte is cut.
 * Records go to the journal when standard error is connected to it, otherwise
 * to standard error as "dlog LEVEL MODULE FILE:LINE:TEXT" or "trace LEVEL
 * FILE:LINE:TEXT".
 *
 * Both calls may be made from any thread and from a signal handler: they are
 * async-signal-safe and leave errno as it was. Neither reports an error.
 */
#ifndef PLATFORM_DLOG_H
#define PLATFORM_DLOG_H

/* The contract is what a library shows, whatever else it hides. */
#pragma GCC visibility push(default)

#ifdef __cplusplus
extern "C"
{
#endif

    /*
     * Logs one record.
     *
     * level:  see above.
     * module: the program's number, 324 for morrow.
     * format: printf form; begins with "%s:%u:", and its first two values are
     * the source file's base name without directory and extension, and the line
     * (unsigned int).
     */
    void dlog_printf(int level, int module, const char* format, ...)
        __attribute__((format(printf, 3, 4)));

    /*
     * Logs one record of the selected events that are also traced.
     *
     * file, line: what dlog_printf takes as its first two values.
     * format:     printf form without the "%s:%u:".
     */
    void dmctp_trace(int level, const char* file, unsigned int line,
                     const char* format, ...)
        __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop

#endif
