#pragma once

#error "the host runs the threads of a block one after the other: it offers no cooperative groups"
