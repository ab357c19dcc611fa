// The web listener (FastCGI on a Unix socket). Not built yet: nothing listens.
#pragma once

void initWeb();
void closeWeb();
