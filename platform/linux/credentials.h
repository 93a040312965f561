// Whether the camera's passwords are kept from others.
#pragma once

// To be called when a password was read from the configuration database: logs 2 "%s holds a
// password and others can read it: mode %04o", once as long as that is so. Any thread.
void checkCredentials();
