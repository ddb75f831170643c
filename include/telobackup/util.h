// Umbrella header: the whole interface of libtelobackup-util.
#ifndef TELOBACKUP_UTIL_H
#define TELOBACKUP_UTIL_H

#include "telobackup/json_text.h"
#include "telobackup/last_error.h"
#include "telobackup/log.h"
#include "telobackup/mustache.h"
#include "telobackup/option_map.h"
#include "telobackup/network/network.h"
#include "telobackup/path/path_filter.h"
#include "telobackup/path/path_telo.h"
#include "telobackup/path/path_util.h"
#include "telobackup/proc/conversation.h"
#include "telobackup/proc/exec.h"
#include "telobackup/proc/proc_util.h"
#include "telobackup/proc/signal.h"
#include "telobackup/proc/subprocess.h"
#include "telobackup/section_config.h"
#include "telobackup/session.h"
#include "telobackup/stringf.h"
#include "telobackup/temp_manager/temp_manager.h"
#include "telobackup/temp_manager/volume_path_manager.h"

#endif
