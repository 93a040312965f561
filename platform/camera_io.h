// The digital input, the relay outputs and the privacy switch: one-character value files, named in
// section "IO" of /etc/camera.conf and by default under /run/camera/io/. Another file under the
// same name, or another name, is noticed within 3 s.
#pragma once

// All: 0 on success, with bit 0 of `*state` as the state; otherwise non-zero and `*state` is
// unchanged. Any thread.
int get_trigger_in_state(int* state);
int get_trigger_out_state(int* state);   // first relay output
int get_trigger_out_state2(int* state);  // second relay output
int get_pt_privacy_state(int* state);

// Tells the camera's user interface whether any event watches the digital input.
int set_trigger_in_state(int used);
