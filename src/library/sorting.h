// Shuffle order and the display order of albums and artists. Not built yet:
// the lists show albums and artists in table order.
#pragma once

void rebuildShuffle();
void sortAlbumsAndArtists();
