#pragma once
/// The record of a dataset in use, and what the layer remembers. Inside the dataset layer only; programs see Session.
#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "lib/corelibs/qas/files/byte_source.h"
#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/files/plain_output.h"
#include "lib/corelibs/qas/files/replacement.h"
#include "lib/corelibs/qas/parameters/command_line.h"
#include "lib/corelibs/qas/parameters/scanner.h"

namespace qas {

struct Layer;
struct streaminf;

enum Entrytype { STREAMIN = 0, STREAMOUT = 1, STREAMINOUT = 2, STREAMSOCKOUT = 3, STREAMSCR = 4 };

/// How a record's data are reached: one descriptor, one stream shared with a header, several files.
enum Iotype { FD_IO = 0, FILE_IO = 1, MULTI_FD_IO = 4 };

/// State of the transfer routines; `open` says whether there are data behind it.
struct FileState {
    bool open = false;
    std::int64_t position = 0;  // from the start of the data
    std::int64_t start = 0;     // where the data start in the stream
    bool started = false;       // of an output: start is known
    std::FILE* out = nullptr;   // written through here,
    ByteSource* in = nullptr;   // read from here,
    Descriptor own;             // or a file of its own, both ways
};
struct FdState {
    Descriptor fd;
    std::int64_t position = 0;
};
struct MultifdState {
    struct Part {
        std::string name;
        Descriptor fd;
        std::int64_t position = 0;
        std::int64_t maximum = 0;
        bool written = false;
        bool full = false;  ///< cannot grow: its device is full, or data of a later file follow
    };
    std::vector<Part> parts;
    std::size_t current = 0;
};
using IoState = std::variant<FileState, FdState, MultifdState>;

/// The six routines of a set. Counts and offsets in bytes; seek returns the new position, or -1.
struct IoRoutines {
    void (*open)(Layer&, streaminf&);
    void (*close)(Layer&, streaminf&);
    std::int64_t (*read)(Layer&, streaminf&, void*, std::int64_t);
    std::int64_t (*write)(Layer&, streaminf&, const void*, std::int64_t);
    std::int64_t (*seek)(Layer&, streaminf&, std::int64_t offset, int whence);
    std::int64_t (*size)(Layer&, streaminf&);
};

/// One dataset in use.
struct streaminf {
    std::string tagname;
    Entrytype entrytype = STREAMIN;
    bool valid = true;    ///< false: no header, or no data
    std::string trouble;  ///< why it is not valid, a line for messages
    std::string headername;
    bool from_history = false;           ///< the header's name came out of a history
    ByteSource header_source;            ///< an open input header, and what follows it
    std::FILE* headfile = nullptr;       ///< an open output or in/out header
    bool close_headfile = false;         ///< headfile is this record's to close
    bool new_headfile = false;           ///< headfile did not exist before
    std::vector<std::string> new_files;  ///< data files that did not
    bool taken_over = false;             ///< what its files held was emptied, or is kept
    Replacement new_header;              ///< headfile is written beside the header it will replace
    std::vector<Replacement> new_data;   ///< so are the data
    bool held = false;                   ///< lines and samples wait until its files may be changed
    std::vector<std::pair<int, std::vector<char>>> held_samples;  ///< data format and bytes of each srite
    pid_t command = 0;                     ///< process at the other end of the header, if it is a command
    Descriptor listener;                   ///< where the reader of a socket output will connect
    std::string pending;                   ///< header text of a held output, or of a socket without a reader
    Descriptor sockfd;                     ///< kept open to the reader or writer that answered at the header's end
    std::string tail;                      ///< the last bytes written to headfile
    std::int64_t text_end = -1;            ///< its length after they were written; -1: unknown
    std::optional<std::string> headerbuf;  ///< text of an input header; none: no header
    std::size_t hdrlen = 0;                ///< its length as it is copied to "out"
    bool scanned = false;                  ///< headerbuf is in hetch_queue
    ParTable hetch_queue;
    std::optional<ParTable> tetch_queue;  ///< second table, searched after the first
    bool backseekable = false;
    bool header_title = false;
    bool header_outname = false;
    bool ready_out = false;
    std::string dataname;
    bool unique_data = false;      ///< dataname was made unique: its file must not exist
    bool fresh_data = true;        ///< dataname was chosen here, not read from a header
    std::string header_in;         ///< value of the last line that named the data in the header
    std::string datapath_source;   ///< where the prefix of a generated data name came from, for messages
    bool in_default_path = false;  ///< that is the default data path
    const IoRoutines* io = nullptr;
    Iotype iotype = FD_IO;
    std::optional<IoState> ioinf;  ///< none until the first transfer
    int format_num = -1;
    bool isapipe = false;

    streaminf() = default;
    streaminf(const streaminf&) = delete;
    streaminf& operator=(const streaminf&) = delete;
};

/// The header and its parameter for messages: `header "name" (parameter tag)`.
std::string header_place(const streaminf& stream);

/// Everything a session remembers.
struct Layer : CommandLine {
    std::list<std::unique_ptr<streaminf>> streams;
    std::FILE* in = stdin;
    std::FILE* out = stdout;
    std::vector<PlainFile> plain_files;  ///< what the program reads and writes beside its datasets
    bool replace = false;  ///< outputs are written beside what they replace, and put into place at their end
    bool hold = false;     ///< outputs are opened and checked, but nothing is emptied or written in files
    int patience_ms = 0;   ///< how long another program that writes an output is waited for
    int retry_ms = 1000;   ///< between two attempts to connect
    std::optional<void (*)(int)> broken_pipe_action;  ///< what SIGPIPE did before an output went to a command or socket
    int hint_after_ms = 5000;  ///< silence of an input header before the user is told what the run waits for
    enum class Recording { on, off, alternate } recording = Recording::on;
    std::set<std::string, std::less<>> inheriting;  ///< outputs whose header the history of "in" may name
    std::string altfile;                            ///< tag that takes the records when recording is `alternate`
    std::vector<char> xdr_block;

    Layer() = default;
    Layer(const Layer&) = delete;
    Layer& operator=(const Layer&) = delete;
    ~Layer();
};

}  // namespace qas
