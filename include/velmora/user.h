// User identity conversion (being written).
#ifndef VELMORA_USER_H_
#define VELMORA_USER_H_
#endif  // VELMORA_USER_H_
