/* The public header compiles as strict C99 on its own. */
#include "libkel.h"

/* Every reason code is an integer constant expression. */
typedef char kel_reason_table_size[(KEL_E_VXLANADDR_ATTRS + 1 == KEL_NUM_REASONS) ? 1 : -1];
