// Settings (being written).
#ifndef VELMORA_SETTINGS_H_
#define VELMORA_SETTINGS_H_
#endif  // VELMORA_SETTINGS_H_
