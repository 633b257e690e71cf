package main

import (
	"os"
	"path/filepath"
	"reflect"
	"strings"
	"testing"
)

// A tree with one source at the top and one in a subsystem folder, as the snippets name them.
func makeTree(t *testing.T) string {
	dir := t.TempDir()
	for _, name := range []string{"main.cpp", "src/util/log.cpp"} {
		path := filepath.Join(dir, name)
		if err := os.MkdirAll(filepath.Dir(path), 0o755); err != nil {
			t.Fatal(err)
		}
		if err := os.WriteFile(path, nil, 0o644); err != nil {
			t.Fatal(err)
		}
	}
	return dir
}

func messages(errs []error) []string {
	var out []string
	for _, err := range errs {
		out = append(out, err.Error())
	}
	return out
}

func TestFaultsAreReportedWithTheirPosition(t *testing.T) {
	cases := []struct {
		name string
		bp   string
		want []string
	}{
		{"a module of every kind the device build uses", `
genrule {
    name: "map",
    srcs: ["src/*/*.cpp"],
    out: ["x.map"],
    cmd: "cat $(in) > $(out)",
}
cc_library_shared {
    name: "libx",
    vendor: true,
    srcs: ["src/*/*.cpp"],
    cflags: ["-Wall"],
    version_script: ":map",
    arch: { arm: { cflags: ["-DARM"] } },
}
cc_binary {
    name: "x",
    srcs: ["main.cpp", ":map{.out}"],
    shared_libs: ["libx"],
}`, nil},
		{"misspelt property", `
cc_binary {
    name: "x",
    src: ["main.cpp"],
}`, []string{`x.bp:4:8: unrecognized property "src"`}},
		{"misspelt property in an arch variant", `
cc_library_shared {
    name: "libx",
    arch: { arm64: { cflag: ["-O2"] } },
}`, []string{`x.bp:4:27: unrecognized property "arch.arm64.cflag"`}},
		{"misspelt genrule command", `
genrule {
    name: "g",
    out: ["o"],
    command: "true",
}`, []string{`x.bp:5:12: unrecognized property "command"`}},
		{"unknown module type", `
cc_binary { name: "x" }
cc_library_shard {
    name: "libx",
}`, []string{`x.bp:3:1: unrecognized module type "cc_library_shard"`}},
		{"string for a list", `
cc_binary {
    name: "x",
    shared_libs: "libx",
}`, []string{`x.bp:4:18: can't assign string value to list property "shared_libs"`}},
		{"integer for a bool", `
cc_library_shared {
    name: "libx",
    vendor: 1,
}`, []string{`x.bp:4:13: can't assign int64 value to bool property "vendor"`}},
		{"list for a string", `
cc_binary {
    name: "x",
    cpp_std: ["c++20"],
}`, []string{`x.bp:4:14: can't assign list value to string property "cpp_std"`}},
		{"every fault of every module, wrong types first as Soong reports them", `
cc_binary { name: "x", srcz: ["main.cpp"], srcs: "main.cpp" }
cc_binary { name: "y", stl: true }`, []string{
			`x.bp:2:50: can't assign string value to list property "srcs"`,
			`x.bp:2:28: unrecognized property "srcz"`,
			`x.bp:3:29: can't assign bool value to string property "stl"`}},
		{"syntax error", `
cc_binary {
    name: "x"
    srcs: ["main.cpp"],
}`, []string{`x.bp:4:5: expected "}", found Ident`}},
		{"module without a name", `
cc_binary {
    srcs: ["main.cpp"],
}`, []string{`x.bp:2:1: property 'name' is missing from a module`}},
		{"name used twice", `
cc_binary { name: "x" }
cc_library_shared { name: "x" }`, []string{`x.bp:3:1: module "x" already defined at x.bp:2:1`}},
		{"missing source", `
cc_binary {
    name: "x",
    srcs: ["main.cpp", "mian.cpp"],
}`, []string{`x.bp:4:24: srcs: "mian.cpp" does not exist`}},
		{"glob that matches nothing, also in an arch variant", `
cc_binary {
    name: "x",
    srcs: ["tools/*.cpp"],
    arch: { arm: { srcs: ["src/*/*.c"] } },
}`, []string{
			`x.bp:4:12: srcs: "tools/*.cpp" matches no file`,
			`x.bp:5:27: arch.arm.srcs: "src/*/*.c" matches no file`}},
		{"reference to a module that is not there", `
cc_library_shared {
    name: "libx",
    version_script: ":libx_map",
}`, []string{`x.bp:4:21: version_script: no module "libx_map" in this file`}},
	}
	dir := makeTree(t)
	for _, c := range cases {
		t.Run(c.name, func(t *testing.T) {
			got := messages(check("x.bp", strings.NewReader(c.bp), dir))
			if !reflect.DeepEqual(got, c.want) {
				t.Errorf("got  %q\nwant %q", got, c.want)
			}
		})
	}
}

func TestProjectAndroidBpPasses(t *testing.T) {
	f, err := os.Open("../../Android.bp")
	if err != nil {
		t.Fatal(err)
	}
	defer f.Close()
	for _, err := range check("Android.bp", f, "../..") {
		t.Error(err)
	}
}
