// Command bpcheck reads Android.bp files with Blueprint's parser and unpacks every module into the
// property structs that Soong's own module factories register, the way Soong does when it loads a
// tree. It reports, as file:line:column messages, what a device build would stop on at load time:
// syntax errors, unknown module types, unknown properties, values of the wrong type, modules
// without a name or with a name used twice. It also checks every path property (srcs,
// version_script, ...): a file must exist, a glob must match at least one file and a ":module"
// reference must name a module of the same file.
//
//	bpcheck [FILE.bp...]    (default: Android.bp)
package main

import (
	"fmt"
	"io"
	"os"
	"path/filepath"
	"reflect"
	"strings"

	"android/soong/android"
	_ "android/soong/cc"      // registers cc_library_shared, cc_binary, cc_defaults, ...
	_ "android/soong/genrule" // registers genrule, gensrcs, genrule_defaults

	"github.com/google/blueprint/parser"
	"github.com/google/blueprint/pathtools"
	"github.com/google/blueprint/proptools"
)

// module is one unpacked module definition: its definition in the file and Soong's module value.
type module struct {
	def   *parser.Module
	value android.Module
}

// check parses one Blueprint file (read from r; dir is the folder its paths are relative to) and
// returns every fault found, each prefixed with its file:line:column.
func check(name string, r io.Reader, dir string) []error {
	file, errs := parser.ParseAndEval(name, r, parser.NewScope(nil))
	if len(errs) > 0 {
		return errs
	}
	factories := android.ModuleTypeFactories()
	var modules []module
	for _, def := range file.Defs {
		def, ok := def.(*parser.Module)
		if !ok {
			continue
		}
		factory, ok := factories[def.Type]
		if !ok {
			errs = append(errs, fmt.Errorf("%s: unrecognized module type %q", def.TypePos, def.Type))
			continue
		}
		value := factory()
		if _, unpackErrs := proptools.UnpackProperties(def.Properties, value.GetProperties()...); len(unpackErrs) > 0 {
			errs = append(errs, unpackErrs...)
			continue
		}
		modules = append(modules, module{def, value})
	}
	errs = append(errs, checkNames(modules)...)
	for _, m := range modules {
		errs = append(errs, checkPaths(m, modules, dir)...)
	}
	return errs
}

// checkNames reports a module without a name and a name defined twice.
func checkNames(modules []module) []error {
	var errs []error
	seen := map[string]*parser.Module{}
	for _, m := range modules {
		name := m.value.Name()
		if name == "" {
			errs = append(errs, fmt.Errorf("%s: property 'name' is missing from a module", m.def.TypePos))
		} else if first, ok := seen[name]; ok {
			errs = append(errs, fmt.Errorf("%s: module %q already defined at %s", m.def.TypePos, name, first.TypePos))
		} else {
			seen[name] = m.def
		}
	}
	return errs
}

// checkPaths reports path property values that name no file, match no file or name no module.
func checkPaths(m module, modules []module, dir string) []error {
	pathProperties := map[string]bool{}
	for _, props := range m.value.GetProperties() {
		collectPathProperties(reflect.ValueOf(props), "", pathProperties)
	}
	var errs []error
	walkProperties(m.def.Properties, "", func(name string, value *parser.String) {
		if !isPathProperty(name, pathProperties) {
			return
		}
		if err := checkPath(value.Value, modules, dir); err != nil {
			errs = append(errs, fmt.Errorf("%s: %s: %w", value.LiteralPos, name, err))
		}
	})
	return errs
}

// isPathProperty tells whether a dotted property name is a path property. The arch, target and
// multilib variants ("arch.arm.srcs", "target.android_arm64.srcs") hold the same properties as the
// module itself, one or two levels down.
func isPathProperty(name string, pathProperties map[string]bool) bool {
	parts := strings.Split(name, ".")
	switch parts[0] {
	case "arch", "target", "multilib":
		for i := 2; i < len(parts); i++ {
			if pathProperties[strings.Join(parts[i:], ".")] {
				return true
			}
		}
		return false
	}
	return pathProperties[name]
}

func checkPath(path string, modules []module, dir string) error {
	if strings.HasPrefix(path, ":") {
		ref := strings.TrimPrefix(path, ":")
		if i := strings.IndexByte(ref, '{'); i >= 0 {
			ref = ref[:i] // ":module{.tag}" names one output of the module
		}
		for _, m := range modules {
			if m.value.Name() == ref {
				return nil
			}
		}
		return fmt.Errorf("no module %q in this file", ref)
	}
	if pathtools.IsGlob(path) {
		matches, _, err := pathtools.Glob(filepath.Join(dir, path), nil, pathtools.FollowSymlinks)
		if err != nil {
			return err
		}
		if len(matches) == 0 {
			return fmt.Errorf("%q matches no file", path)
		}
		return nil
	}
	if _, err := os.Stat(filepath.Join(dir, path)); err != nil {
		return fmt.Errorf("%q does not exist", path)
	}
	return nil
}

// collectPathProperties adds the dotted names of the fields tagged android:"path" in a property
// struct.
func collectPathProperties(v reflect.Value, prefix string, names map[string]bool) {
	for v.Kind() == reflect.Ptr || v.Kind() == reflect.Interface {
		if v.IsNil() {
			return
		}
		v = v.Elem()
	}
	if v.Kind() != reflect.Struct {
		return
	}
	for i := 0; i < v.NumField(); i++ {
		field := v.Type().Field(i)
		if field.PkgPath != "" {
			continue
		}
		if field.Anonymous || field.Name == "BlueprintEmbed" {
			collectPathProperties(v.Field(i), prefix, names)
			continue
		}
		name := prefix + proptools.PropertyNameForField(field.Name)
		if proptools.HasTag(field, "android", "path") {
			names[name] = true
		}
		collectPathProperties(v.Field(i), name+".", names)
	}
}

// walkProperties calls visit with the dotted name and value of every string, alone or in a list.
func walkProperties(properties []*parser.Property, prefix string, visit func(string, *parser.String)) {
	for _, p := range properties {
		name := prefix + p.Name
		switch value := p.Value.Eval().(type) {
		case *parser.String:
			visit(name, value)
		case *parser.List:
			for _, item := range value.Values {
				if s, ok := item.Eval().(*parser.String); ok {
					visit(name, s)
				}
			}
		case *parser.Map:
			walkProperties(value.Properties, name+".", visit)
		}
	}
}

func main() {
	files := os.Args[1:]
	if len(files) == 0 {
		files = []string{"Android.bp"}
	}
	failed := false
	for _, name := range files {
		f, err := os.Open(name)
		if err != nil {
			fmt.Fprintln(os.Stderr, err)
			failed = true
			continue
		}
		errs := check(name, f, filepath.Dir(name))
		f.Close()
		for _, err := range errs {
			fmt.Fprintln(os.Stderr, err)
			failed = true
		}
	}
	if failed {
		os.Exit(1)
	}
}
