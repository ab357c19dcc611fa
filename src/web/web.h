// The web listener (FastCGI on a Unix socket). Not built yet: nothing listens.
#pragma once

void initWeb();
void closeWeb();
// Tells the web pages to reload their lists (nothing listens yet).
void webClientsRefresh();
