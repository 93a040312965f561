#include "events/cgi_event.h"

#include "events/log_ids.h"
#include "platform/stream_buffer.h"

TCgiEvent::TCgiEvent(const char* schedule, const char* schedule2, long period, int slot)
    : TEvent(schedule, schedule2, period), slot_(slot) {}

void TCgiEvent::onLogEvent(const THandler& handler) { logAction(kWebActions, handler); }

bool TCgiEvent::onDetect() { return sbTestUserdata(sbVideo(), slot_) == slot_; }

void TCgiEvent::onHandle() { handleAndPause(); }
