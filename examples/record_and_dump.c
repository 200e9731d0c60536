#include "orva_sd.h"
int main(void) { return 0; }
