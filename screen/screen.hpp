// The "AMT MODE" picture on the framebuffer, shown after the handshake: the
// picture thread calls screen_init once and, three seconds later,
// screen_update once.
#pragma once

// Opens and maps the framebuffer and inflates the picture. 0, or -1 with
// nothing left open.
int screen_init();
// Draws the picture into the page not shown and flips to it. 0 or -1.
int screen_update();
