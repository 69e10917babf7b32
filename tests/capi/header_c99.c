/* The public headers compile as strict C99, each on its own. */
#include <kel/libkel.h>
#include <kel/libkel_node.h>
#include <kel/sys/fabric.h>

/* Every reason code is an integer constant expression. */
typedef char kel_reason_table_size[(KEL_E_VXLANADDR_ATTRS + 1 == KEL_NUM_REASONS) ? 1 : -1];
/* The datalink statuses that reach callers inside KEL_E_WEXO codes keep their numbers. */
typedef char wexo_notsup_is_1061[(WEXO_STATUS_NOTSUP * 256 + KEL_E_WEXO == 1061) ? 1 : -1];
