// Display order of artists and albums, the tag masks that filter browsing,
// and the shuffle order that random play walks through.
#pragma once

#include <vector>

// Shuffled order of every track: random play goes through all of them once
// before any comes again.
void rebuildShuffle();
// The track after t in the shuffle order (the first when t is not in it);
// -1 for an empty library.
int shuffleNext(int t);

// Fills sortedAlbums and sortedArtists: by name without tag letters, in any
// case ("The " before an artist's name does not count), when the "Sorted"
// setting is on, in table order when it is off; "Reversed" turns either
// round. Also counts the albums of each tag.
void sortAlbumsAndArtists();
std::vector<int> artistsInDisplayOrder();
std::vector<int> albumsInDisplayOrder();

// An item is shown unless the masks hide it: with a narrowed orMask only
// tagged items in one of its tags, and never one in a notMask tag.
bool albumVisible(int a);
bool artistVisible(int r);
bool trackVisible(int t);
