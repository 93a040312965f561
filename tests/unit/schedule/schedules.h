// Where a test puts the schedules file that the platform linked to it reads.
#pragma once

#include <string>

void putSchedules(const std::string& text);
