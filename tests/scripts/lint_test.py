"""What `scripts/lint house` says about includes, in repositories made for the test: lint_test.py LINT"""
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

LINT = None
OPENCV = "OpenCV reaches a header of simcam/camera other than pictures.h"
CLEAN = {
    "simcam/board/board.h": "",
    "simcam/camera/camera.h": '#include "board/board.h"\n',
    "simcam/camera/pictures.h": "#include <opencv2/core.hpp>\n",
    "simcam/camera/camera.cpp": '#include "camera/camera.h"\n#include <opencv2/core.hpp>\n',
    "simcam/web/server.cpp": '#include "camera/camera.h"\n',
}


class House(unittest.TestCase):
    def setUp(self):
        box = tempfile.TemporaryDirectory()
        self.addCleanup(box.cleanup)
        self.root = os.path.join(box.name, "repository")

    def write(self, path, text):
        path = os.path.join(self.root, path)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        return path

    def git(self, *words):
        subprocess.run(["git", "-c", "user.name=a", "-c", "user.email=a@b", *words], cwd=self.root, check=True)

    def lint(self, files):
        """Status and output for the clean repository with these files."""
        for path, text in {**CLEAN, **files}.items():
            self.write(path, text)
        os.chmod(self.write("scripts/setup", "#!/bin/sh\n"), 0o755)  # installs nothing
        lint = os.path.join(self.root, "scripts", "lint")
        shutil.copy(LINT, lint)
        self.git("init", "-q")
        self.git("add", ".")
        self.git("commit", "-q", "-m", "a")
        environment = {name: value for name, value in os.environ.items() if name != "FOCUS_BUILD_ROOT"}
        run = subprocess.run([lint, "house"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                             env=environment, check=False)
        return run.returncode, run.stdout

    def refused(self, files, reason, *findings):
        status, text = self.lint(files)
        self.assertEqual(status, 1, text)
        for line in (f"{reason}:", *findings):
            self.assertIn(line, text)
        self.assertEqual(len(text.splitlines()), 2 + len(findings), text)

    def test_a_clean_repository_passes(self):
        status, text = self.lint({})
        self.assertEqual(status, 0, text)

    def test_a_circle_of_includes_is_refused(self):
        self.refused({"simcam/board/board.h": '#include "board/post.h"\n', "simcam/board/post.h": "",
                      "simcam/board/post.cpp": '#include "board/board.h"\n'},
                     "circle of includes", "simcam/board/board", "simcam/board/post", "-: input contains a loop:")

    def test_an_include_against_the_direction_is_refused(self):
        includes = (("picture/lens.cpp", "board/board.h"), ("board/planes.cpp", "web/frames.h"),
                    ("link/server.cpp", "process/process.h"), ("process/process.cpp", "link/server.h"),
                    ("camera/snapshot.cpp", "web/frames.h"))
        self.refused({f"simcam/{path}": f'#include "{header}"\n' for path, header in includes},
                     "include against the direction of simcam's folders",
                     *(f'simcam/{path}:1:#include "{header}"' for path, header in includes))

    def test_an_include_by_a_path_with_dots_is_refused(self):
        self.refused({"simcam/board/plane.cpp": '#include "../web/frames.h"\n'},
                     "include by a path with .., which hides the direction",
                     'simcam/board/plane.cpp:1:#include "../web/frames.h"')

    def test_a_file_left_by_a_patch_is_refused(self):
        left = ("simcam/web/server.cpp.orig", "tests/main_test.cpp.rej")
        self.refused({path: "" for path in left}, "file left by a merge or a patch", *left)

    def test_opencv_in_a_header_of_the_camera_is_refused(self):
        self.refused({"simcam/camera/snapshot.h": "#include <opencv2/core.hpp>\n"}, OPENCV,
                     "simcam/camera/snapshot.h:1:#include <opencv2/core.hpp>")

    def test_opencv_that_reaches_a_header_of_the_camera_through_another_is_refused(self):
        includes = (("camera/options.h", '"picture/lens.h"'), ("camera/snapshot.h", '"camera/pictures.h"'),
                    ("board/state.h", "<opencv2/core.hpp>"), ("process/process.h", "<opencv2/core.hpp>"))
        self.refused({"simcam/picture/lens.h": "#include <opencv2/core.hpp>\n",
                      **{f"simcam/{path}": f"#include {header}\n" for path, header in includes}},
                     OPENCV, *(f"simcam/{path}:1:#include {header}" for path, header in includes))


if __name__ == "__main__":
    LINT = sys.argv.pop(1)
    unittest.main()
