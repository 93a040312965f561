// The camera's configuration: every setting that the platform reads from it.
#include <cmath>

#include "platform/camera_config.h"
#include "platform/ftp.h"
#include "platform/ini_file.h"
#include "platform/linux/delivery_settings.h"
#include "platform/linux/root.h"
#include "platform/linux/stream_buffer_layout.h"
#include "platform/linux/stream_buffer_owner.h"
#include "platform/mail.h"
#include "platform/motion.h"
#include "platform/overlay.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/memory_files.h"

namespace {

template <std::size_t kSize>
void requireText(const char (&text)[kSize]) {
  require(std::memchr(text, '\0', kSize) != nullptr, "texts end");
}

void readNumbers() {
  int value = 0;
  for (const auto getter : {get_resolution, get_compress_rate, get_compression_type, get_ip_ratio,
                            get_video_source, get_brightness, get_contrast, get_saturation, get_hue,
                            get_flip, get_mirror, get_exposure, get_max_exposure, get_flickness,
                            get_white_balance, get_noise_reduction, get_backlight_comp})
    getter(&value);
  set_channel(value);
  char rate[16];
  if (get_frame_rate(rate, sizeof rate) == 0) requireText(rate);
  require(std::isfinite(getInidouble("/camera.conf", "Video", "FrameRate", 0)),
          "fractions are finite");
}

void readOverlays() {
  for (const auto getter : {get_overlay_image, get_overlay_motion, get_overlay_text}) {
    tag_Overlay overlay{};
    if (getter(&overlay) == 0) requireText(overlay.text);
  }
  tag_MotionDetect record{};
  for (int window = 0; window <= 3; ++window) get_motion_detect(&record, window);
}

void readDeliveries() {
  TFtpServer ftp{};
  if (get_ftp_server(&ftp) == 0) {
    requireText(ftp.server);
    requireText(ftp.folder);
    requireText(ftp.user);
    require(ftp.port >= 1 && ftp.port <= kLastPort, "ports are ports");
  }
  TMailInfo mail{};
  if (get_mail_info(&mail) == 0) {
    requireText(mail.server);
    requireText(mail.receiver);
    require(mail.security >= kMailPlain && mail.security <= kMailTls, "security is known");
  }
  TlsSettings tls{};
  DeliverySettings("Mail").tls(&tls);
  for (long capacity : {1L, 20L, 600L}) {
    std::string body(static_cast<std::size_t>(capacity), '?');
    if (get_mail_body(body.data(), capacity, 1700000000) == 0)
      require(body.find('\0') != body.npos, "a mail's text ends");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
  setPlatformRoot("/memory");
  setenv("TZ", "UTC", 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  memory_files::put("/memory/etc/camera.conf",
                    std::string(reinterpret_cast<const char*>(data), size));
  readNumbers();
  readOverlays();
  readDeliveries();
  sb::readIni = getIniInt;
  const sb::BufferSizes sizes = sb::configuredSizes();
  require(sb::frameCountFits(sizes.video.frames) && sb::frameSizeFits(sizes.video.frameSize),
          "buffers are of a possible size");
  memory_files::clear();
  return 0;
}
