#include "capture.h"

#include <cstdio>
#include <stdexcept>
#include <unistd.h>

// Redirects a descriptor into a temporary file until finish().
class Redirection
{
  public:
    explicit Redirection(int descriptor) : target(descriptor), saved(dup(descriptor))
    {
        if (!file || saved < 0 || dup2(fileno(file), target) < 0)
            throw std::runtime_error("cannot capture a standard stream");
    }

    ~Redirection()
    {
        fclose(file);
    }

    std::string finish()
    {
        dup2(saved, target);
        close(saved);

        std::string text;
        rewind(file);
        for (int byte = fgetc(file); byte != EOF; byte = fgetc(file))
            text += (char)byte;
        return text;
    }

  private:
    FILE *file = tmpfile();
    int target;
    int saved;
};

Captured capture(const std::function<void()> &action)
{
    fflush(stdout);
    fflush(stderr);
    Redirection out(STDOUT_FILENO);
    Redirection err(STDERR_FILENO);

    action();

    fflush(stdout);
    Captured captured;
    captured.out = out.finish();
    captured.err = err.finish();
    return captured;
}
