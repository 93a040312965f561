// What an AVI file has in it, and what is wrong with it.
#include "tests/avi_check/avi_report.h"

#include <algorithm>

#include "tools/camctl/json.h"

std::uint64_t AviReport::keyPictures() const {
  return static_cast<std::uint64_t>(
      std::count_if(pictures.begin(), pictures.end(), [](const AviPicture& p) { return p.key; }));
}

std::uint64_t AviReport::behind() const {
  return static_cast<std::uint64_t>(std::count_if(pictures.begin(), pictures.end(),
                                                  [](const AviPicture& p) { return p.behind; }));
}

std::int64_t AviReport::durationMs() const {
  if (rate == 0) return 0;
  return (std::int64_t{counted} * scale * 1000 + rate / 2) / rate;
}

std::string AviReport::text() const {
  std::string all;
  for (const std::string& problem : problems) all += problem + '\n';
  return all;
}

std::string AviReport::json() const {
  Json json;
  const auto number = [&json](const char* name, std::uint64_t value) {
    json.key(name).value(static_cast<std::int64_t>(value));
  };
  json.beginObject().key("good").value(good()).key("cut").value(cut);
  number("size", fileSize);
  json.key("tag").value(tag).key("width").value(width).key("height").value(height);
  json.key("rate").value(rate).key("scale").value(scale);
  json.key("duration_ms").value(durationMs());
  number("pictures", pictures.size());
  number("key_pictures", keyPictures());
  number("behind", behind());
  json.key("counted").value(counted);
  number("indexed", indexed);
  number("old_indexed", oldIndexed);
  json.key("parts").beginList();
  for (const AviPart& part : parts) {
    json.beginObject();
    number("at", part.at);
    number("end", part.end);
    number("movi", part.moviAt);
    number("movi_end", part.moviEnd);
    number("pictures", part.pictures);
    json.endObject();
  }
  json.endList().key("problems").beginList();
  for (const std::string& problem : problems) json.value(problem);
  json.endList().endObject();
  return json.text();
}
