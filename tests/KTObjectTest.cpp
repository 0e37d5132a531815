#include <gtest/gtest.h>
#include <KTBase/KTObject.h>
TEST(X,Y){ delete new CKTObject; }
