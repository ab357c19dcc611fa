#include "web/web.h"

void initWeb() {}
void closeWeb() {}
void webClientsRefresh() {}
