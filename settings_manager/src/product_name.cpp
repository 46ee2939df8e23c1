// The definition of sdkProdName (settings_manager/product.h), in a section of its own. The
// header is not included: clang refuses a section on a variable declared before.
#include "settings_manager/export.h"

#ifndef SM_PRODUCT_NAME
#error "SM_PRODUCT_NAME must be defined by the build"
#endif

extern "C" SETTINGS_MANAGER_API __attribute__((section(".sdk_prod_name"), used))
char const sdkProdName[] = SM_PRODUCT_NAME;
