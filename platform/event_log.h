// The event log: what happened, for the camera's user.
#pragma once

// Appends one line (UTC time, `id`, its text) to /var/log/camera/events.log. The texts stand in
// docs/event-log.md. On failure logs 2 "can't write the event log: %s". Any thread.
void log_event(int id);
