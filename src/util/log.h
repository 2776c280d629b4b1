// Shorthands for this library's log lines: every line goes through the
// host logger with module number 18.
#pragma once

#include "webclient/host.h"

#define WC_LOG_DEBUG(...) orb_log_debug(WEBCLIENT_LOG_MODULE, __VA_ARGS__)
#define WC_LOG_INFO(...) orb_log_info(WEBCLIENT_LOG_MODULE, __VA_ARGS__)
#define WC_LOG_WARNING(...) orb_log_warning(WEBCLIENT_LOG_MODULE, __VA_ARGS__)
#define WC_LOG_ERROR(...) orb_log_error(WEBCLIENT_LOG_MODULE, __VA_ARGS__)
