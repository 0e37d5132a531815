#include <gtest/gtest.h>
#include <KTBase/KTLock.h>
#include <KTBase/KTObject.h>
TEST(X,Y){ delete new CKTObject; }
