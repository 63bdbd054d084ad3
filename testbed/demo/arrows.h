// Which steps of the road a picture shows, and between whom. What the program does inside of an
// event, before it begins and after it has ended is left out. Pure; any thread.
#pragma once

#include "picture.h"
#include "road.h"

std::vector<picture::Arrow> arrowsOf(const std::vector<road::Line>& lines);
