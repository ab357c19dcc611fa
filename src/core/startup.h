#pragma once

// Brings the appliance up in its fixed order and runs the main loop; returns
// only when the daemon cannot start at all.
int kzMain();
