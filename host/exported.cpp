// The variables that ZULd lends the module; host/lent.list exports them.
#include <zul/host.h>

char ZULhome[256];
FILE *backuplog;
FILE *fplog;
char cmdname[64] = "ZULd";
