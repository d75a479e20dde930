#pragma once

// Puts it all there, once.
void lay_out_machine();
