// Every public header of the library.
#ifndef KTBASE_KTBASE_H
#define KTBASE_KTBASE_H

#include "KTBase/KTDebug.h"
#include "KTBase/KTDefs.h"
#include "KTBase/KTLock.h"
#include "KTBase/KTObject.h"

#endif
