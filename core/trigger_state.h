// Trigger polling: publishes what the camera's inputs and outputs are doing.
#pragma once

// Takes the states of digital input, relays and privacy into the status word, and whether a message
// signals the input. Takes one message at the most. A source that fails keeps its bit, each time
// with a message: the log folds what repeats. Main thread.
// Logs 2 "get_trigger_out_state() fail", 2 "get_trigger_out_state2() fail",
// 2 "get_trigger_in_state() fail", 2 "get_pt_privacy_state() fail".
void getTriggerState();
