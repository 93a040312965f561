// Getters of the camera's configuration database, /etc/camera.conf: see docs/configuration.md.
#pragma once

constexpr char kCameraConfig[] = "/etc/camera.conf";

// All: 0 on success; otherwise non-zero (the key is absent or no number) and `*value` is unchanged.
// Any thread.
int get_resolution(int* value);
int get_compress_rate(int* value);
int get_compression_type(int* value);
int get_ip_ratio(int* value);
int get_video_source(int* value);
int get_brightness(int* value);
int get_contrast(int* value);
int get_saturation(int* value);
int get_hue(int* value);
int get_flip(int* value);
int get_mirror(int* value);
int get_exposure(int* value);
int get_max_exposure(int* value);
int get_flickness(int* value);
int get_white_balance(int* value);
int get_noise_reduction(int* value);
int get_backlight_comp(int* value);

// The frame rate as text, cut to `size` - 1 characters. 0 on success; otherwise `text` is
// unchanged.
int get_frame_rate(char* text, int size);

// Selects the video input. 0 on success, non-zero when there is no such channel.
int set_channel(int channel);
