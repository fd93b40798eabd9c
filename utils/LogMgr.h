/**
 * @file
 * The logger that every line of the library goes through: the development stand-in for the platform's own.
 */
#ifndef LOG_MGR_H
#define LOG_MGR_H

/// @addtogroup logger
/// @{

/// How important a line is, rising.
enum log_level {
    log_level_verbose = 1, ///< objects that are skipped, and successes
    log_level_detail  = 2, ///< field by field what is sent
    log_level_notice  = 3, ///< progress, and events that are no failures
    log_level_failure = 4, ///< what was refused, or failed
};

/// The one logger of a process.
class __attribute__((visibility("default"))) LogMgr {
public:
    static LogMgr& getInstance(); ///< @return the logger; safe in any thread

    /**
     * Writes one line to standard error: level, source and text. Lines below the level that the environment variable
     * VESK_LOG_LEVEL names (1 to 4, 3 when it is not set) are left out. Safe in any thread.
     * @param level   importance
     * @param file    the source's path, without extension
     * @param line    line in that source
     * @param format  as for printf; a line feed at its end is not needed, and "%S" takes a narrow string as "%s" does
     */
    void doLog(log_level level, const char* file, unsigned int line, const char* format, ...)
        __attribute__((format(printf, 5, 6)));
};

/// @}

#endif
