// SPDX-License-Identifier: Apache-2.0
#include "board/timeline/saved_timeline.hpp"

#include "board/timeline/event_json.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace board
{
namespace
{

constexpr mode_t readableByAll = 0644;

} // namespace

SaveFile::SaveFile(std::filesystem::path name) :
    path(std::move(name)),
    file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
              readableByAll))
{
    if (!file)
    {
        throw Error::fromErrno("cannot open " + path.string() +
                                   " to save the timeline",
                               errno, "name another file with --save");
    }
}

void SaveFile::write(std::string_view text)
{
    while (!text.empty())
    {
        const auto written = ::write(file.get(), text.data(), text.size());
        if (written < 0 && errno != EINTR)
        {
            throw Error::fromErrno(
                "cannot save the timeline in " + path.string(), errno,
                "it is not whole; name another file with "
                "--save");
        }
        text.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
    }
}

SavedTimeline::SavedTimeline(Timeline& timeline, SaveFile target) :
    file(std::move(target)), follower(std::in_place, timeline,
                                      [this](const std::vector<Event>& events)
                                      {
                                          save(events);
                                      })
{
}

void SavedTimeline::save(const std::vector<Event>& events)
{
    if (failure)
    {
        return;
    }
    try
    {
        for (const auto& event : events)
        {
            file.write(jsonLine(event) + '\n');
        }
    }
    catch (const Error& error)
    {
        failure = error;
    }
}

void SavedTimeline::finish()
{
    follower.reset();
    if (failure)
    {
        throw Error(failure->what());
    }
}

} // namespace board
