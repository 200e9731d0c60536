// The sequence iterator: walks the series of one element one stored run at a
// time, handing out clones with count and repeat factor intact, so that a
// series can be copied without decoding its values.
#ifndef ORVA_SD_STDIO_SEQUENCE_ITERATOR_H
#define ORVA_SD_STDIO_SEQUENCE_ITERATOR_H

#include "sd_sequence.h"

#include <memory>
#include <set>

namespace orva_sd {

class sd_stdio_file;
class sd_element_block;
class sd_data_block;

class sd_sequence_iterator {
public:
    virtual ~sd_sequence_iterator();
    virtual int seek(unsigned long count) = 0;
    virtual sd_sequence* get_sequence() = 0;
};

class sd_stdio_sequence_iterator : public sd_sequence_iterator {
public:
    sd_stdio_sequence_iterator(sd_stdio_file const* file, std::shared_ptr<sd_element_block> element_block);
    ~sd_stdio_sequence_iterator() override;

    int seek(unsigned long count) override;
    sd_sequence* get_sequence() override;

    int seek_next_sequence();
    int seek_next_data_block();

    sd_stdio_file const* file;
    std::shared_ptr<sd_element_block> element_block;
    std::shared_ptr<sd_data_block> current_block;
    sd_sequences::list_type::iterator current;

private:
    bool at_sequence() const;
    void enter(std::shared_ptr<sd_data_block> block);
    void enter_stored(long pos);

    std::set<long> visited; // stored blocks entered by this walk
};

} // namespace orva_sd

#endif
