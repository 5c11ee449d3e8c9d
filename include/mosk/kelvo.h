// Umbrella header: the whole public interface of libkelvo.
#ifndef MOSK_KELVO_H_
#define MOSK_KELVO_H_

#include "mosk/kelvo/aco.h"
#include "mosk/kelvo/co.h"
#include "mosk/kelvo/cycles.h"
#include "mosk/kelvo/md5.h"
#include "mosk/kelvo/perf.h"
#include "mosk/kelvo/plugin.h"
#include "mosk/kelvo/shm.h"
#include "mosk/kelvo/socket_client.h"
#include "mosk/kelvo/socket_interface.h"
#include "mosk/kelvo/socket_server.h"
#include "mosk/kelvo/socket_tcp.h"
#include "mosk/kelvo/thread.h"
#include "mosk/kelvo/time_trace.h"
#include "mosk/kelvo/topic.h"

#endif  // MOSK_KELVO_H_
