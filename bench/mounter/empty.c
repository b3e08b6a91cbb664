/* What starting any program costs at the least. */
int main(void) { return 0; }
