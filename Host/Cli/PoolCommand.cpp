#include "Host/Cli/PoolCommand.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include "Host/Cli/Output.h"
#include "Host/Cli/PoolInitializer.h"
#include "Host/Cli/SizeParser.h"

namespace loopstore::cli {

void PoolCommand::Register(CLI::App& app) {
    struct Args {
        std::string directory;
        uint64_t files = 0;
        std::string size;
        bool json = false;
    };
    auto a = std::make_shared<Args>();
    CLI::App* pool = app.add_subcommand("pool", "Manage the pool of preallocated files");
    pool->require_subcommand(1);
    CLI::App* init = pool->add_subcommand(
        "init", "Create a pool: N preallocated files of BYTES each, named 00000001, ...");
    init->add_option("dir", a->directory, "Pool directory (created if missing)")->required();
    init->add_option("--files", a->files, "Number of files")
        ->required()
        ->check(CLI::PositiveNumber);
    init->add_option("--size", a->size, "Size of each file (K, M, G suffixes: 16M)")->required();
    init->add_flag("--json", a->json, "Print the result as JSON");
    init->callback([a] {
        const uint64_t size = SizeParser::ParseSize(a->size);
        const bool terminal = ::isatty(STDERR_FILENO) == 1;
        PoolInitializer(a->directory, a->files, size)
            .Run([terminal](uint64_t done, uint64_t count) {
                if (terminal)
                    std::fprintf(stderr, "\rcreating pool files: %llu/%llu",
                                 static_cast<unsigned long long>(done),
                                 static_cast<unsigned long long>(count));
                if (terminal && done == count)
                    std::fputc('\n', stderr);
            });
        Output(a->json, std::cout)
            .Print({{"directory", a->directory}, {"files", a->files}, {"file_size", size}},
                   "created " + std::to_string(a->files) + " files of " + Output::Bytes(size) +
                       " in " + a->directory);
    });
}

}  // namespace loopstore::cli
