"""Conan 2 recipe: conan create packaging/conan"""

import os
import re

from conan import ConanFile
from conan.tools.build import check_min_cppstd
from conan.tools.cmake import CMake, CMakeToolchain, cmake_layout
from conan.tools.files import copy, load, rmdir


class KxMp4Conan(ConanFile):
    name = "kx_mp4"
    license = "MIT"
    description = "Records encoded video, audio, captions and timecode into MP4 and QuickTime files"
    topics = ("mp4", "quicktime", "muxer", "recording")
    package_type = "library"
    settings = "os", "arch", "compiler", "build_type"
    options = {"shared": [True, False], "fPIC": [True, False]}
    default_options = {"shared": False, "fPIC": True}
    implements = ["auto_shared_fpic"]

    @property
    def _root(self):
        return os.path.normpath(os.path.join(self.recipe_folder, "..", ".."))

    def set_version(self):
        project = load(self, os.path.join(self._root, "CMakeLists.txt"))
        self.version = re.search(r"project\(kx_mp4 VERSION ([0-9.]+)", project).group(1)

    def export_sources(self):
        for part in ("CMakeLists.txt", "LICENSE", "c/*", "cmake/*", "codec/*", "docs/*", "examples/*", "inc/*",
                     "recorder/*", "repair/*", "src/*"):
            copy(self, part, src=self._root, dst=self.export_sources_folder)

    def validate(self):
        check_min_cppstd(self, 17)

    def layout(self):
        cmake_layout(self)

    def generate(self):
        toolchain = CMakeToolchain(self)
        toolchain.cache_variables["BUILD_TESTING"] = False
        toolchain.cache_variables["KX_MP4_BUILD_TOOLS"] = False
        toolchain.cache_variables["KX_MP4_BUILD_EXAMPLES"] = False
        toolchain.cache_variables["KX_MP4_WARNINGS_AS_ERRORS"] = False
        toolchain.generate()

    def build(self):
        cmake = CMake(self)
        cmake.configure()
        cmake.build()

    def package(self):
        copy(self, "LICENSE", src=self.source_folder,
             dst=os.path.join(self.package_folder, "licenses"))
        CMake(self).install()
        rmdir(self, os.path.join(self.package_folder, "lib", "cmake"))
        rmdir(self, os.path.join(self.package_folder, "lib", "pkgconfig"))

    def package_info(self):
        self.cpp_info.set_property("cmake_file_name", "kx_mp4")
        library = self.cpp_info.components["kx_mp4"]
        library.libs = ["kx_mp4"]
        library.set_property("cmake_target_name", "kx_mp4::kx_mp4")
        library.set_property("pkg_config_name", "kx_mp4")
        for name in ("recorder", "repair"):
            component = self.cpp_info.components[name]
            component.libs = [f"kx_mp4_{name}"]
            component.requires = ["kx_mp4"]
            component.set_property("cmake_target_name", f"kx_mp4::{name}")
            component.set_property("pkg_config_name", f"kx_mp4_{name}")
        c = self.cpp_info.components["c"]
        c.libs = ["kx_mp4_c"]
        c.requires = ["recorder", "repair"]
        c.set_property("cmake_target_name", "kx_mp4::c")
        c.set_property("pkg_config_name", "kx_mp4_c")
        if self.settings.os in ("Linux", "FreeBSD"):
            library.system_libs = ["pthread"]
