// The licence boundary: the yes or no that a render asks, the release that
// Unload and DestroyInstance call, and the demo imprint for an unlicensed frame.
// The plug-in is licensed by default; TRELVO_DEMO=1 in the environment forces
// the demo mode so that its path can be seen and tested.
#pragma once

class PLImage;

// True when the frame may be rendered without the demo imprint.
bool TrelvoLicenceGranted();

// Marks an unlicensed frame: a plate with the word DEMO and diagonal bands,
// blended over the image at strength 0 (nothing) to 1. Pixel types uchar,
// ushort and float with one to four channels; others are left as they are.
// Writes only inside the image.
void TrelvoDemoImprint(PLImage* image, float strength);

// Gives back whatever the licence layer holds. Safe to call at any time, repeatedly.
void TrelvoLicenceRelease();
