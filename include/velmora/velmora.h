/// @file
/// libvelmora: the shared support library of the Velmora mail-server suite.
/// Including this header declares every public name of the library. Each
/// family's header says whether its objects may be shared between threads or
/// carried across fork().
#ifndef VELMORA_VELMORA_H_
#define VELMORA_VELMORA_H_

#include <velmora/backend.h>
#include <velmora/common.h>
#include <velmora/config.h>
#include <velmora/file.h>
#include <velmora/memcached.h>
#include <velmora/settings.h>
#include <velmora/socket.h>
#include <velmora/user.h>

#endif  // VELMORA_VELMORA_H_
