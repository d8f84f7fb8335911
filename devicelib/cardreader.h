// The card-reader library: ID, social-security, bank and IC cards, SAM module, voice prompts.
// C entry points as the server calls them; see doccamera.h for the conventions on texts.
#pragma once

extern "C" {

// true when the social-security card module answers
bool GetDeviceStatus_dc(void);

}  // extern "C"
