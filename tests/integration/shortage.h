/* Shortages: functions of the system that fail when the module calls them, and only then. */

/* From now on `call` of `name` fails with that errno: "2" the second one, "2+" the second one and all behind it, "0"
 * none. "memory" stands for all functions that allocate, counted together: which of them a call becomes is the
 * compiler's choice. "name@caller" counts the calls from within that exported function alone. Children count on from
 * where their parent was. Ends the process when the module does not call the function at all. */
void makeShort(void *module, const char *name, const char *call, int error);
