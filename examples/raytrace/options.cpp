// The command line: names, help texts, ranges.
#include "options.h"

#include "arguments.h"
#include "failure.h"

std::optional<Options> readOptions(int argc, char** argv) {
    Options options;
    std::string light, show;
    bool noGround = false;

    CLI::App app{"Renders a triangle mesh with shadows and a reflecting ground into a PNG file.\n"
                 "Points are X,Y,Z in the mesh's own coordinates.",
                 "raytrace"};
    CameraArguments camera(app, options, options);
    TreeArguments tree(app, options);
    WorkArguments work(app, options);
    app.option_defaults()->always_capture_default();
    app.add_option("MESH", options.mesh, "mesh file (OBJ, PLY, STL, 3DS, glTF... or a dump of --dump)")->required();
    app.add_option("-o,--output", options.output, "picture to write (raytrace.png)");
    app.add_option("--dump", options.dump, "write the mesh as a dump; renders only if --output is given too");

    camera.addPicture();
    app.add_option("--show", show, "cost: heat map of the tree nodes and triangles met per ray, instead of the picture")
        ->check(CLI::IsMember({"cost"}))
        ->group("Picture");
    camera.addCamera();

    const char* scene = "Scene";
    app.add_option("--light", light, "position of the light (above the eye's shoulder)")->group(scene);
    app.add_flag("--no-ground", noGround, "no ground plane under the mesh")->group(scene);
    app.add_option("--mirror", options.mirror, "reflectivity of the ground")->check(within(0.0, 1.0))->group(scene);
    app.add_option("--gloss", options.gloss, "reflectivity of the mesh")->check(within(0.0, 1.0))->group(scene);
    app.add_flag("--flat", options.flat, "facets instead of smooth normals")->group(scene);
    tree.add();
    work.add();

    if (!parseArguments(app, argc, argv)) return std::nullopt;
    camera.read();
    tree.read();
    work.read(options.samples);
    if (!light.empty()) options.light = readPoint("--light", light);
    options.showCost = show == "cost";
    options.ground = !noGround;

    options.render = options.dump.empty() || !options.output.empty();
    if (options.output.empty()) options.output = "raytrace.png";
    return options;
}
