// Lists of what the kernel has, as text and as JSON.
#ifndef VESKCTL_LISTING_H
#define VESKCTL_LISTING_H

#include "Answer.h"

#include <Decode.h>

struct ListStyle {
    const char* name;     // in JSON
    const char* headline; // "{protocol} {mode} spi {spi}": what is always there
    const char* tail;     // what stands behind the rest: "{packets} {used?}"; as usual, too, but for what has a ?
    const char* item;     // a headline, of an object in an array
};

// Shows what is not as usual, and where the description lacks something, that it does.
class Listing {
public:
    Listing(Answer& to, const ListStyle& by) : answer(to), style(by) { clear(); }

    void clear();
    void add(const Vesk::Messages::Fields& fields);

private:
    Answer& answer;
    const ListStyle& style;
};

// All that a list may show, a line each, with the type that it has in JSON.
std::string explained(const ListStyle& style, const Vesk::Messages::Fields& listed);

#endif
