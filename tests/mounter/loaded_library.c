/* Stands for the agent library in a process that has it loaded: enough code
   that a change of the file would be felt. */
int loaded_library_call(int value);

static int step(int value) { return value ^ 0x5a5a; }
static int (*volatile const through_data)(int) = step;

int loaded_library_call(int value) { return through_data(value); }
