#pragma once

// Marks what libVuroHelper.so exports even to a user built with hidden visibility.
#define VURO_API __attribute__((visibility("default")))
