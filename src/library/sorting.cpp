#include "library/sorting.h"

void rebuildShuffle() {}
void sortAlbumsAndArtists() {}
