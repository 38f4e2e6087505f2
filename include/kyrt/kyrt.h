/*
 * KYRT - support runtime for analysis tools.
 *
 * Umbrella header: includes every public family. Usable from C (the C
 * functions and variables) and from C++ (also the classes).
 */
#ifndef KYRT_KYRT_H
#define KYRT_KYRT_H

#include "kyrt/command_handler.h"
#include "kyrt/debug_dump.h"
#include "kyrt/export.h"
#include "kyrt/files.h"
#include "kyrt/hash_table.h"
#include "kyrt/log.h"
#include "kyrt/memory.h"
#include "kyrt/modules.h"
#include "kyrt/options.h"
#include "kyrt/queue.h"
#include "kyrt/range_table.h"
#include "kyrt/red_black_tree.h"
#include "kyrt/runtime.h"
#include "kyrt/sets.h"
#include "kyrt/shared_exclusive_lock.h"
#include "kyrt/spin_lock.h"
#include "kyrt/strings.h"
#include "kyrt/system_information.h"
#include "kyrt/vectors.h"
#include "kyrt/xml_file.h"
#include "kyrt/xml_writer.h"
#include "kyrt/zca.h"

#endif /* KYRT_KYRT_H */
