/**
 * @file tavrix.h
 * The whole library in one include.
 */
#ifndef TAVRIX_H
#define TAVRIX_H

#include "tavrix_conf_parser.h"
#include "tavrix_db_api.h"
#include "tavrix_error.h"
#include "tavrix_jrpc.h"
#include "tavrix_jrpc_utils.h"
#include "tavrix_lsyslog.h"
#include "tavrix_mq.h"
#include "tavrix_shm.h"
#include "tavrix_socket.h"
#include "tavrix_sqlite3.h"
#include "tavrix_timer.h"
#include "tavrix_utils.h"
#include "tavrix_validation.h"

#endif
